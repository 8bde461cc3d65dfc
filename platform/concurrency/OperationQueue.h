#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

#include "platform/base/Export.h"
#include "platform/concurrency/Operation.h"

namespace velkor::NS {

/// Runs operations on one pool of threads shared by all queues (as many as the machine has cores, at least 2, and a few more
/// while the running operations only wait), or, for the main queue, on the main run loop. Any thread may add; a queue of width 1
/// runs its operations one after another in the order of the calls. An exception that leaves an operation ends the process on a
/// pool thread, and leaves `RunLoop::run` on the main queue. Destroying a queue cancels what has not started and waits for what
/// runs; in one of its own operations it does not wait.
class VELKOR_EXPORT OperationQueue : public Object {
public:
    static constexpr std::ptrdiff_t defaultWidth = -1;

    OperationQueue();
    ~OperationQueue() override;
    /// The queue of the main thread: blocks run in one of the main run loop's next turns, never inside the call that adds them.
    static OperationQueue& mainQueue();

    /// 0: nothing starts; negative: as many as the pool allows. Ignored by the main queue, whose width is 1.
    void setMaxConcurrentOperationCount(std::ptrdiff_t count);
    std::ptrdiff_t maxConcurrentOperationCount() const;
    void addOperation(std::shared_ptr<Operation> operation);
    void addOperation(std::function<void()> block);
    /// The operations not yet finished, in order.
    std::vector<std::shared_ptr<Operation>> operations() const;
    std::size_t operationCount() const;
    void cancelAllOperations();
    /// Blocks the caller until the queue is empty; never called on the main queue or from one of the queue's own operations.
    void waitUntilAllOperationsAreFinished();

private:
    explicit OperationQueue(bool main);
    struct State;
    std::shared_ptr<State> m_state;
};

/// Runs `task(index)` for every index below `count` on the shared pool and the calling thread, and returns when all have run. The
/// tasks must not wait for each other; the first exception is raised again in the caller.
VELKOR_EXPORT void applyConcurrently(std::size_t count, const std::function<void(std::size_t index)>& task);

}  // namespace velkor::NS
