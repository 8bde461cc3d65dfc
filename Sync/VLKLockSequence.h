#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "Sync/VLKRunningCommands.h"

namespace velkor {

/// Keeps lock and unlock requests in order on the wire: a lock goes out only after every earlier unlock has been answered, since
/// an unlock that overtakes the next lock would end it. Main thread.
class VLKLockSequence {
public:
    explicit VLKLockSequence(VLKRunningCommands& commands) noexcept : m_commands(commands) {}

    /// How many locks have been asked for; tells an unlock whether it was overtaken.
    std::uint64_t locksAskedFor() const noexcept { return m_locksAskedFor; }
    void startLock(const std::shared_ptr<JSONWebCommand>& command);
    void startUnlock(const std::shared_ptr<JSONWebCommand>& command);
    /// To be called when an unlock has been answered, by success or failure.
    void unlockAnswered();

private:
    VLKRunningCommands& m_commands;
    std::uint64_t m_locksAskedFor = 0;
    int m_unlocksOut = 0;
    std::vector<std::shared_ptr<JSONWebCommand>> m_waitingLocks;
};

}  // namespace velkor
