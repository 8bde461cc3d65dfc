#pragma once

#include <atomic>
#include <functional>

#include "platform/base/Export.h"
#include "platform/base/Object.h"

namespace velkor::NS {

/// A piece of work for an OperationQueue, run once. `main` runs on a pool thread (or the main thread for the main queue); the
/// completion block runs right after it on the same thread, by whatever path `main` ended.
class VELKOR_EXPORT Operation : public Object {
public:
    Operation();
    ~Operation() override;

    virtual void main() = 0;
    /// Asks the operation to end early; one that has not started is not run, but its completion block is. Any thread.
    virtual void cancel();

    bool isCancelled() const noexcept { return m_cancelled; }
    bool isExecuting() const noexcept { return m_executing; }
    bool isFinished() const noexcept { return m_finished; }
    /// Set before the operation is added to a queue.
    void setCompletionBlock(std::function<void()> block) { m_completionBlock = std::move(block); }

private:
    friend class OperationQueue;
    void run();

    std::function<void()> m_completionBlock;
    std::atomic<bool> m_cancelled = false;
    std::atomic<bool> m_executing = false;
    std::atomic<bool> m_finished = false;
};

}  // namespace velkor::NS
