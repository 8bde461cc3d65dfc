#include "Sync/VLKLockSequence.h"

#include <utility>

namespace velkor {

void VLKLockSequence::startLock(const std::shared_ptr<JSONWebCommand>& command) {
    ++m_locksAskedFor;
    if (m_unlocksOut > 0) {
        m_waitingLocks.push_back(command);
    } else {
        m_commands.start(command);
    }
}

void VLKLockSequence::startUnlock(const std::shared_ptr<JSONWebCommand>& command) {
    ++m_unlocksOut;
    m_commands.start(command);
}

void VLKLockSequence::unlockAnswered() {
    if (--m_unlocksOut > 0) return;
    for (const auto& command : std::exchange(m_waitingLocks, {})) m_commands.start(command);
}

}  // namespace velkor
