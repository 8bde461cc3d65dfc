#include "platform/concurrency/OperationQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <latch>
#include <numeric>
#include <stdexcept>
#include <string>
#include <thread>

#include "platform/base/Exception.h"
#include "platform/concurrency/RunLoop.h"

using namespace velkor::NS;

namespace {

constexpr double patience = 30;

struct TestOperation : Operation {
    std::function<void()> work;
    explicit TestOperation(std::function<void()> block) : work(std::move(block)) {}
    void main() override { work(); }
};

/// An operation that runs until it is let go.
struct HeldOperation : Operation {
    std::promise<void> started;
    std::promise<void> letGo;
    void main() override {
        started.set_value();
        letGo.get_future().wait();
    }
};

}  // namespace

TEST(OperationQueueTest, WidthOneKeepsTheOrder) {
    OperationQueue queue;
    queue.setMaxConcurrentOperationCount(1);
    std::vector<int> seen;
    for (int i = 0; i < 2000; ++i) queue.addOperation([&seen, i] { seen.push_back(i); });
    queue.waitUntilAllOperationsAreFinished();
    std::vector<int> expected(2000);
    std::iota(expected.begin(), expected.end(), 0);
    EXPECT_EQ(seen, expected);
}

TEST(OperationQueueTest, WidthBoundsWhatRunsAtOnce) {
    OperationQueue queue;
    queue.setMaxConcurrentOperationCount(3);
    std::atomic<int> running = 0;
    std::atomic<int> most = 0;
    std::latch three(3);
    for (int i = 0; i < 60; ++i) {
        queue.addOperation([&, i] {
            const int now = ++running;
            for (int seen = most; now > seen && !most.compare_exchange_weak(seen, now);) {
            }
            if (i < 3) three.arrive_and_wait();  // three do run at once
            --running;
        });
    }
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(most, 3);
}

TEST(OperationQueueTest, OperationsThatWaitDoNotStarveOthers) {
    RunLoop::main();
    OperationQueue waiting;
    OperationQueue other;
    std::promise<void> answer;
    auto answered = answer.get_future().share();
    for (unsigned i = 0; i < std::max(2u, std::thread::hardware_concurrency()) + 2; ++i)
        waiting.addOperation([&] { answered.wait(); });
    // Two ends of one conversation: what the first ones wait for is only said when the later one has run.
    other.addOperation([&] { RunLoop::main().post([&] { answer.set_value(); }); });
    const auto isAnswered = [&] { return answered.wait_for(std::chrono::seconds(0)) == std::future_status::ready; };
    EXPECT_TRUE(RunLoop::main().runUntil(isAnswered, patience));
    waiting.waitUntilAllOperationsAreFinished();
}

TEST(OperationQueueTest, TellsWhatIsNotFinishedInOrder) {
    OperationQueue queue;
    queue.setMaxConcurrentOperationCount(1);
    auto first = std::make_shared<HeldOperation>();
    auto second = std::make_shared<TestOperation>([] {});
    queue.addOperation(first);
    queue.addOperation(second);
    first->started.get_future().wait();
    EXPECT_TRUE(first->isExecuting());
    EXPECT_FALSE(second->isExecuting());
    EXPECT_EQ(queue.operations(), (std::vector<std::shared_ptr<Operation>>{first, second}));
    EXPECT_EQ(queue.operationCount(), 2u);
    first->letGo.set_value();
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(first->isFinished() && second->isFinished());
    EXPECT_EQ(queue.operationCount(), 0u);
    EXPECT_THROW(queue.addOperation(second), AssertionFailure);
}

TEST(OperationQueueTest, ACancelledOneIsNotRunButItsCompletionBlockIs) {
    OperationQueue queue;
    queue.setMaxConcurrentOperationCount(1);
    auto running = std::make_shared<HeldOperation>();
    auto cancelled = std::make_shared<TestOperation>([] { ADD_FAILURE() << "cancelled"; });
    bool completed = false;
    cancelled->setCompletionBlock([&] { completed = true; });
    queue.addOperation(running);
    queue.addOperation(cancelled);
    running->started.get_future().wait();
    queue.cancelAllOperations();
    EXPECT_TRUE(running->isCancelled());
    running->letGo.set_value();
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(completed && cancelled->isFinished());
}

TEST(OperationQueueTest, DestructionCancelsWhatWaitsAndJoinsWhatRuns) {
    auto running = std::make_shared<HeldOperation>();
    struct Waiting : TestOperation {
        using TestOperation::TestOperation;
        std::function<void()> cancelled;
        void cancel() override {
            TestOperation::cancel();
            cancelled();
        }
    };
    auto held = std::make_shared<int>(0);
    auto waiting = std::make_shared<Waiting>([held] { ADD_FAILURE() << "cancelled"; });
    waiting->cancelled = [&] { running->letGo.set_value(); };
    bool completed = false;
    running->setCompletionBlock([&] { completed = true; });
    {
        OperationQueue queue;
        queue.setMaxConcurrentOperationCount(1);
        queue.addOperation(running);
        queue.addOperation(std::exchange(waiting, nullptr));
        running->started.get_future().wait();
    }
    EXPECT_TRUE(completed);
    EXPECT_FALSE(running->isCancelled());
    EXPECT_EQ(held.use_count(), 1);
    {
        OperationQueue stopped;
        stopped.setMaxConcurrentOperationCount(0);
        stopped.addOperation([held] { ADD_FAILURE() << "never started"; });
    }
    EXPECT_EQ(held.use_count(), 1);
}

TEST(OperationQueueTest, ItsOwnOperationMayHoldTheLastReference) {
    std::promise<void> ended;
    auto queue = std::make_shared<OperationQueue>();
    queue->setMaxConcurrentOperationCount(1);
    std::promise<void> go;
    queue->addOperation([&, own = queue] { go.get_future().wait(); });
    auto last = std::make_shared<TestOperation>([] { ADD_FAILURE() << "cancelled with its queue"; });
    last->setCompletionBlock([&] { ended.set_value(); });
    queue->addOperation(last);
    queue.reset();
    go.set_value();
    ended.get_future().wait();
}

TEST(OperationQueueTest, TheMainQueueRunsOnTheMainLoopAndNeverInsideTheCall) {
    auto& loop = RunLoop::main();
    auto& queue = OperationQueue::mainQueue();
    int count = 0;
    queue.addOperation([&] { ++count; });
    EXPECT_EQ(count, 0);
    EXPECT_EQ(queue.operationCount(), 1u);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&] {
            for (int i = 0; i < 25'000; ++i) queue.addOperation([&] { count += RunLoop::isMainThread(); });
        });
    }
    EXPECT_TRUE(loop.runUntil([&] { return count == 100'001; }, patience));
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(queue.operationCount(), 0u);
    EXPECT_THROW(queue.waitUntilAllOperationsAreFinished(), AssertionFailure);
}

TEST(OperationQueueTest, AnExceptionOnTheMainQueueLeavesTheLoopAfterTheCompletionBlock) {
    auto& loop = RunLoop::main();
    auto raising = std::make_shared<TestOperation>([] { throw std::runtime_error("raised"); });
    bool completed = false;
    bool later = false;
    raising->setCompletionBlock([&] { completed = true; });
    OperationQueue::mainQueue().addOperation(raising);
    OperationQueue::mainQueue().addOperation([&] { later = true; });
    EXPECT_THROW(loop.runUntil([] { return false; }, patience), std::runtime_error);
    EXPECT_TRUE(completed && raising->isFinished() && !later);
    loop.dispatchPending();
    EXPECT_TRUE(later);
    EXPECT_EQ(OperationQueue::mainQueue().operationCount(), 0u);
}

TEST(OperationQueueDeathTest, AnExceptionOnAPoolThreadEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            OperationQueue queue;
            queue.addOperation([] { throw std::runtime_error("raised on a pool thread"); });
            queue.waitUntilAllOperationsAreFinished();
        },
        "raised on a pool thread");
}

TEST(ApplyConcurrentlyTest, RunsEveryIndexOnceAlsoInsideOperations) {
    OperationQueue queue;
    std::vector<std::atomic<int>> runs(500);
    for (int operation = 0; operation < 8; ++operation) {
        queue.addOperation([&] { applyConcurrently(runs.size(), [&](std::size_t index) { ++runs[index]; }); });
    }
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(std::ranges::all_of(runs, [](auto& count) { return count == 8; }));
    applyConcurrently(0, [](std::size_t) { ADD_FAILURE(); });
}

TEST(ApplyConcurrentlyTest, RaisesTheFirstExceptionWhenAllHaveRun) {
    std::atomic<int> runs = 0;
    EXPECT_THROW(applyConcurrently(100,
                                   [&](std::size_t index) {
                                       ++runs;
                                       if (index % 10 == 3) throw std::out_of_range("task");
                                   }),
                 std::out_of_range);
    EXPECT_EQ(runs, 100);
}
