#include "Sync/VLKMainThreadQuestions.h"

#include <condition_variable>
#include <mutex>
#include <optional>

#include "Sync/VLKGuardedStep.h"
#include "platform/concurrency/OperationQueue.h"
#include "platform/concurrency/RunLoop.h"

namespace velkor {

struct VLKMainThreadQuestions::State {
    std::mutex mutex;
    std::condition_variable changed;
    bool closed = false;

    bool isClosed() {
        const std::lock_guard lock(mutex);
        return closed;
    }
};

VLKMainThreadQuestions::VLKMainThreadQuestions() : m_state(std::make_shared<State>()) {}

bool VLKMainThreadQuestions::ask(const std::function<void()>& question) {
    if (NS::RunLoop::isMainThread()) {
        question();
        return true;
    }
    const auto outcome = std::make_shared<std::optional<bool>>();
    // The question lives on the asker's stack: it is touched only while the asker waits, that is until `closed`.
    NS::OperationQueue::mainQueue().addOperation([state = m_state, &question, outcome] {
        if (state->isClosed()) return;
        const bool answered = runGuarded(question);
        const std::lock_guard lock(state->mutex);
        *outcome = answered;
        state->changed.notify_all();
    });
    std::unique_lock lock(m_state->mutex);
    m_state->changed.wait(lock, [&] { return *outcome || m_state->closed; });
    return outcome->value_or(false);
}

void VLKMainThreadQuestions::close() {
    const std::lock_guard lock(m_state->mutex);
    m_state->closed = true;
    m_state->changed.notify_all();
}

}  // namespace velkor
