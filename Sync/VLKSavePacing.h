#pragma once

#include <cstddef>

namespace velkor {

/// Spares a cycle of many chunks the writing of the whole pending queue after each of them. A save that would only leave
/// acknowledged transactions out may wait: the state that is kept, older as a whole, then repeats them after a crash, and the
/// service takes a repeat for what it is. So the writes of one cycle cost a few times the first one, not its square. Main thread.
class VLKSavePacing {
public:
    /// A pending change came that neither the kept state nor the store's history holds.
    void changeFiled() noexcept { m_hasUnsavedChanges = true; }
    /// The state was kept with so many pending transactions.
    void saved(std::size_t pending) noexcept {
        m_savedPending = pending;
        m_hasUnsavedChanges = m_waiting = false;
    }
    /// Whether the save after an answer may be left to a later one.
    bool wait(std::size_t pending) noexcept {
        m_waiting = !m_hasUnsavedChanges && pending >= smallQueue && pending > m_savedPending / 4 * 3;
        return m_waiting;
    }
    /// The kept state is older than what the service has acknowledged.
    bool isWaiting() const noexcept { return m_waiting; }

private:
    /// Below this many transactions a save costs little more than its request.
    static constexpr std::size_t smallQueue = 1000;

    std::size_t m_savedPending = 0;
    bool m_hasUnsavedChanges = true;
    bool m_waiting = false;
};

}  // namespace velkor
