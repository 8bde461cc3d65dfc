// The inside of a run loop, shared with the timers and the connections that live on it.
#pragma once

#include <uv.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

namespace velkor::NS::detail {

class TransferLoop;

/// libuv's loop, the posted blocks, the timers, and the list of what is ready to run. A turn first lets libuv collect events,
/// then runs the list, so that no block ever runs inside a C call: it may raise, and it may start a turn of its own. All calls on
/// the loop's thread, but `post`.
class RunLoopCore : public std::enable_shared_from_this<RunLoopCore> {
public:
    /// Deadline (seconds of `now()`) and a number that keeps equal deadlines in order.
    using TimerKey = std::pair<double, std::uint64_t>;

    RunLoopCore();
    ~RunLoopCore();

    uv_loop_t* uvLoop() noexcept { return &m_loop; }
    bool isCurrentThread() const noexcept { return m_thread == std::this_thread::get_id(); }

    void post(std::function<void()> block);
    /// For callbacks of libuv and libcurl: the block runs after libuv's turn.
    void addReady(std::function<void()> block);
    /// To be called after a change of timers or watchers: a host that waits for the descriptor asks for the time-out again.
    void noteChange();

    int fileDescriptor() const noexcept { return uv_backend_fd(&m_loop); }
    int timeoutMilliseconds();
    /// Waits until something can be dispatched, for at most `seconds` (negative: without limit).
    void wait(double seconds);
    /// One turn: what is due now, without waiting.
    void dispatch();

    void beginRun() noexcept { ++m_runs; }
    void endRun() noexcept;
    /// Ends the innermost run that is not yet asked to end; nothing outside of a run.
    void requestStop() noexcept { m_stops += m_stops < m_runs; }
    bool stopRequested() const noexcept { return m_stops > 0; }

    /// Seconds of a clock that only timers follow: the machine's, or one that is moved by hand.
    double now() const;
    TimerKey schedule(double deadline, std::function<void()> block);
    /// Harmless when the block is already due.
    void unschedule(const TimerKey& key) { m_timers.erase(key); }

    // Seam for tests: from `holdTime` on the timers' clock moves only by `setTime`; `releaseTime` gives the machine's back.
    void holdTime() { m_heldTime = now(); }
    void setTime(double seconds);
    void releaseTime() { m_heldTime.reset(); }
    std::optional<double> nextDeadline() const;

    /// The connections' part, made by the first one.
    std::shared_ptr<TransferLoop> transfers;

private:
    void collect();

    // Fixed after construction.
    const std::thread::id m_thread = std::this_thread::get_id();
    // The loop's thread only.
    uv_loop_t m_loop;
    std::deque<std::function<void()>> m_ready;
    std::map<TimerKey, std::function<void()>> m_timers;
    std::uint64_t m_lastTimer = 0;
    std::optional<double> m_heldTime;
    bool m_isCollecting = false;
    std::size_t m_runs = 0;
    std::size_t m_stops = 0;
    // Guards itself.
    uv_async_t m_wake;
    // Guarded by the mutex.
    std::mutex m_mutex;
    std::deque<std::function<void()>> m_posted;
};

}  // namespace velkor::NS::detail
