#include "platform/concurrency/OperationQueue.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <utility>

#include "platform/base/Exception.h"
#include "platform/base/FirstException.h"
#include "platform/concurrency/RunLoop.h"
#include "platform/concurrency/ThreadPool.h"

namespace velkor::NS {

namespace {

class BlockOperation final : public Operation {
public:
    explicit BlockOperation(std::function<void()> block) : m_block(std::move(block)) {}
    void main() override { m_block(); }

private:
    std::function<void()> m_block;
};

}  // namespace

Operation::Operation() = default;
Operation::~Operation() = default;

void Operation::cancel() { m_cancelled = true; }

void Operation::run() {
    FirstException raised;
    if (!m_cancelled) {
        m_executing = true;
        raised.attempt([this] { main(); });
        m_executing = false;
    }
    m_finished = true;
    if (auto completion = std::exchange(m_completionBlock, nullptr)) raised.attempt(completion);
    raised.raise();
}

struct OperationQueue::State : std::enable_shared_from_this<OperationQueue::State> {
    const bool main;
    mutable std::mutex mutex;
    // Guarded by the mutex.
    std::condition_variable empty;
    std::ptrdiff_t width = defaultWidth;
    std::vector<std::shared_ptr<Operation>> running;  // in the order of their start
    std::deque<std::shared_ptr<Operation>> waiting;

    explicit State(bool isMain) : main(isMain), width(isMain ? 1 : defaultWidth) {}

    /// The queue whose operation the calling thread is running.
    static thread_local const State* current;

    void add(std::shared_ptr<Operation> operation) {
        assertThat(operation && !operation->isFinished(), "An operation runs once");
        std::unique_lock lock(mutex);
        waiting.push_back(std::move(operation));
        if (main) {
            lock.unlock();
            RunLoop::main().post([this] { runOnMainThread(); });  // the main queue lives until the process ends
        } else {
            startWhatMay();
        }
    }

    /// Hands as many operations to the pool as the width allows; the mutex is held.
    void startWhatMay() {
        auto& pool = detail::ThreadPool::shared();
        const auto most = width < 0 ? pool.limit() : static_cast<std::size_t>(width);
        while (running.size() < most && !waiting.empty()) {
            auto operation = takeNext();
            pool.run([self = shared_from_this(), operation = std::move(operation)]() mutable {
                self->runOnPool(std::move(operation));
            });
        }
    }

    std::shared_ptr<Operation> takeNext() {
        running.push_back(std::move(waiting.front()));
        waiting.pop_front();
        return running.back();
    }

    void runOnPool(std::shared_ptr<Operation> operation) noexcept {
        const auto* outer = std::exchange(current, this);
        operation->run();
        finish(std::move(operation));
        current = outer;
    }

    void runOnMainThread() {
        std::unique_lock lock(mutex);
        auto operation = takeNext();
        lock.unlock();
        struct Finish {
            State& state;
            std::shared_ptr<Operation>& operation;
            ~Finish() { state.finish(std::move(operation)); }
        } finisher{*this, operation};
        operation->run();
    }

    /// Lets go of the operation and all that it holds before the queue counts as empty.
    void finish(std::shared_ptr<Operation> operation) {
        const auto* done = operation.get();
        std::unique_lock lock(mutex);
        auto place = std::find_if(running.begin(), running.end(), [done](auto& one) { return one.get() == done; });
        place->reset();
        lock.unlock();
        operation.reset();
        lock.lock();
        running.erase(std::find(running.begin(), running.end(), nullptr));
        if (!main) startWhatMay();
        if (running.empty() && waiting.empty()) empty.notify_all();
    }

    /// Cancels what has not started; a queue that was stopped by its width runs again, for the completion blocks.
    void close() {
        std::unique_lock lock(mutex);
        const std::vector<std::shared_ptr<Operation>> cancelled(waiting.begin(), waiting.end());
        lock.unlock();
        for (auto& operation : cancelled) operation->cancel();
        lock.lock();
        if (width == 0) width = 1;
        startWhatMay();
    }

    void waitUntilEmpty() {
        std::unique_lock lock(mutex);
        empty.wait(lock, [this] { return running.empty() && waiting.empty(); });
    }
};

thread_local const OperationQueue::State* OperationQueue::State::current = nullptr;

OperationQueue::OperationQueue() : OperationQueue(false) {}
OperationQueue::OperationQueue(bool main) : m_state(std::make_shared<State>(main)) {}

OperationQueue::~OperationQueue() {
    m_state->close();
    if (State::current != m_state.get()) m_state->waitUntilEmpty();
}

OperationQueue& OperationQueue::mainQueue() {
    static auto* queue = new OperationQueue(true);
    return *queue;
}

void OperationQueue::setMaxConcurrentOperationCount(std::ptrdiff_t count) {
    if (m_state->main) return;
    std::unique_lock lock(m_state->mutex);
    m_state->width = count;
    m_state->startWhatMay();
}

std::ptrdiff_t OperationQueue::maxConcurrentOperationCount() const {
    std::unique_lock lock(m_state->mutex);
    return m_state->width;
}

void OperationQueue::addOperation(std::shared_ptr<Operation> operation) { m_state->add(std::move(operation)); }

void OperationQueue::addOperation(std::function<void()> block) {
    m_state->add(std::make_shared<BlockOperation>(std::move(block)));
}

std::vector<std::shared_ptr<Operation>> OperationQueue::operations() const {
    std::unique_lock lock(m_state->mutex);
    std::vector<std::shared_ptr<Operation>> all;
    for (auto& operation : m_state->running) {
        if (operation && !operation->isFinished()) all.push_back(operation);
    }
    all.insert(all.end(), m_state->waiting.begin(), m_state->waiting.end());
    return all;
}

std::size_t OperationQueue::operationCount() const {
    std::unique_lock lock(m_state->mutex);
    const auto running = std::count_if(m_state->running.begin(), m_state->running.end(),
                                       [](auto& operation) { return operation && !operation->isFinished(); });
    return static_cast<std::size_t>(running) + m_state->waiting.size();
}

void OperationQueue::cancelAllOperations() {
    for (auto& operation : operations()) operation->cancel();
}

void OperationQueue::waitUntilAllOperationsAreFinished() {
    assertThat(!m_state->main && State::current != m_state.get(), "A queue cannot wait for itself");
    m_state->waitUntilEmpty();
}

void applyConcurrently(std::size_t count, const std::function<void(std::size_t index)>& task) {
    struct Work {
        std::size_t count;
        const std::function<void(std::size_t)>* task;  // valid while indices are left
        std::atomic<std::size_t> next = 0;
        std::mutex mutex;
        std::condition_variable finished;
        std::size_t done = 0;
        std::exception_ptr raised;

        void help() {
            for (std::size_t index; (index = next++) < count;) {
                std::exception_ptr failure;
                try {
                    (*task)(index);
                } catch (...) {
                    failure = std::current_exception();
                }
                std::unique_lock lock(mutex);
                if (failure && !raised) raised = failure;
                if (++done == count) finished.notify_all();
            }
        }
    };
    if (count == 0) return;
    auto work = std::make_shared<Work>();
    work->count = count;
    work->task = &task;
    auto& pool = detail::ThreadPool::shared();
    for (std::size_t helper = 1; helper < std::min(count, pool.width()); ++helper) pool.run([work] { work->help(); });
    work->help();
    std::unique_lock lock(work->mutex);
    work->finished.wait(lock, [&] { return work->done == count; });
    if (work->raised) std::rethrow_exception(work->raised);
}

}  // namespace velkor::NS
