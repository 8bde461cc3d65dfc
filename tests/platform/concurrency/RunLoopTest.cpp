#include "platform/concurrency/RunLoop.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <array>
#include <atomic>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/concurrency/Timer.h"

using namespace velkor::NS;

namespace {

constexpr double patience = 30;

/// A host's own loop that knows nothing but the descriptor and the time-out, and asks for the latter after each dispatch only.
bool pollUntil(RunLoop& loop, const std::function<bool()>& condition) {
    for (int turns = 0; turns < 100'000; ++turns) {
        if (condition()) return true;
        pollfd descriptor{loop.fileDescriptor(), POLLIN, 0};
        const int timeout = loop.timeoutMilliseconds();
        const int most = static_cast<int>(patience * 1000);
        if (poll(&descriptor, 1, timeout < 0 ? most : timeout) == 0 && timeout < 0) return false;
        loop.dispatchPending();
    }
    return false;
}

bool isReadable(const RunLoop& loop) {
    pollfd descriptor{loop.fileDescriptor(), POLLIN, 0};
    return poll(&descriptor, 1, 0) == 1;
}

}  // namespace

TEST(RunLoopTest, RunsPostsOfAllThreadsEachInItsOrder) {
    constexpr int threads = 4;
    constexpr int posts = 25'000;
    auto& loop = RunLoop::main();
    std::array<int, threads> next{};
    int disordered = 0;
    int count = 0;
    std::vector<std::thread> posters;
    for (int thread = 0; thread < threads; ++thread) {
        posters.emplace_back([&, thread] {
            for (int i = 0; i < posts; ++i) {
                loop.post([&, thread, i] {
                    disordered += next[static_cast<std::size_t>(thread)]++ != i;
                    ++count;
                });
            }
        });
    }
    EXPECT_TRUE(loop.runUntil([&] { return count == threads * posts; }, patience));
    for (auto& poster : posters) poster.join();
    EXPECT_EQ(disordered, 0);
}

TEST(RunLoopTest, AnExceptionLeavesTheDispatchingCallAndNothingIsLost) {
    auto& loop = RunLoop::main();
    const auto expectRaise = [&](const std::function<void()>& dispatchingCall) {
        bool later = false;
        loop.post([] { throw std::runtime_error("raised in a block"); });
        loop.post([&] { later = true; });
        EXPECT_THROW(dispatchingCall(), std::runtime_error);
        EXPECT_FALSE(later);
        EXPECT_EQ(loop.timeoutMilliseconds(), 0);
        EXPECT_TRUE(isReadable(loop));
        loop.dispatchPending();
        EXPECT_TRUE(later);
    };
    expectRaise([&] { loop.dispatchPending(); });
    expectRaise([&] { loop.runUntil([] { return false; }, patience); });
    expectRaise([&] { loop.run(); });
    expectRaise([&] { pollUntil(loop, [] { return false; }); });
}

TEST(RunLoopTest, RunUntilNestsAndKeepsTheOrder) {
    auto& loop = RunLoop::main();
    std::string order;
    loop.post([&] {
        order += "a(";
        EXPECT_TRUE(loop.runUntil([&] { return order.ends_with("c"); }, patience));
        order += ")";
    });
    loop.post([&] { order += "b"; });
    loop.post([&] { loop.post([&] { order += "c"; }); });
    EXPECT_TRUE(loop.runUntil([&] { return order.ends_with(")"); }, patience));
    EXPECT_EQ(order, "a(bc)");
}

TEST(RunLoopTest, RunUntilTellsWhetherTheConditionHolds) {
    auto& loop = RunLoop::main();
    EXPECT_TRUE(loop.runUntil([] { return true; }, 0));
    EXPECT_FALSE(loop.runUntil([] { return false; }, 0.01));
    bool ran = false;
    loop.post([&] { ran = true; });
    EXPECT_TRUE(loop.runUntil([&] { return ran; }, 0)) << "a turn is taken even without time";
}

TEST(RunLoopTest, StopEndsTheInnermostRun) {
    auto& loop = RunLoop::main();
    std::string order;
    loop.post([&] {
        loop.run();
        order += "inner ";
        std::thread([&] { loop.stop(); }).join();
    });
    loop.post([&] { std::thread([&] { loop.stop(); }).join(); });
    loop.run();
    order += "outer";
    EXPECT_EQ(order, "inner outer");

    loop.stop();  // before the run: kept
    loop.run();
}

TEST(RunLoopTest, AHostEmbedsItByDescriptorAndTimeout) {
    auto& loop = RunLoop::main();
    int fromThread = 0;
    std::thread poster([&] {
        for (int i = 0; i < 500; ++i) loop.post([&] { ++fromThread; });
    });
    int ticks = 0;
    auto timer = Timer::scheduledTimer(loop, 0.001, true, [&](Timer&) { ++ticks; });
    EXPECT_TRUE(pollUntil(loop, [&] { return fromThread == 500 && ticks >= 3; }));
    poster.join();
    timer->invalidate();
    loop.dispatchPending();
    EXPECT_EQ(loop.timeoutMilliseconds(), -1);
    EXPECT_FALSE(isReadable(loop));

    // Whatever the host does between two dispatches wakes it.
    loop.post([] {});
    EXPECT_TRUE(isReadable(loop));
    EXPECT_EQ(loop.timeoutMilliseconds(), 0);
    loop.dispatchPending();
    timer = Timer::scheduledTimer(loop, 3600, false, [](Timer&) {});
    EXPECT_TRUE(isReadable(loop)) << "the time-out has changed";
    loop.dispatchPending();
    EXPECT_FALSE(isReadable(loop));
    EXPECT_GT(loop.timeoutMilliseconds(), 3'500'000);
    timer->invalidate();
}

TEST(RunLoopTest, WakesAHostThatRunsItsOwnLoopInsideACallback) {
    auto& loop = RunLoop::main();
    int fired = 0;
    std::shared_ptr<Timer> timer;
    loop.post([&] {
        EXPECT_TRUE(isReadable(loop)) << "the other block waits";
        loop.dispatchPending();
        EXPECT_FALSE(isReadable(loop));
        timer = Timer::scheduledTimer(loop, 0, false, [&](Timer&) { ++fired; });
        EXPECT_TRUE(isReadable(loop)) << "the time-out has changed";
        EXPECT_TRUE(pollUntil(loop, [&] { return fired == 2; }));
    });
    loop.post([&] { ++fired; });
    loop.dispatchPending();
    EXPECT_EQ(fired, 2);
}

TEST(RunLoopTest, AThreadsLoopEndsWithItsThread) {
    RunLoop::main();
    auto held = std::make_shared<int>(1);
    std::shared_ptr<Timer> timer;
    std::thread([&] {
        auto& loop = RunLoop::current();
        EXPECT_FALSE(RunLoop::isMainThread());
        EXPECT_EQ(&loop, &RunLoop::current());
        bool ran = false;
        loop.post([&] { ran = true; });
        EXPECT_TRUE(loop.runUntil([&] { return ran; }, patience));
        timer = Timer::scheduledTimer(loop, 0, true, [held](Timer&) {});
        loop.post([held] { ADD_FAILURE() << "the loop has ended"; });
    }).join();
    EXPECT_FALSE(timer->isValid());
    timer->invalidate();
    EXPECT_EQ(held.use_count(), 1);
}

TEST(RunLoopTest, TheFirstThreadToAskForItOwnsTheMainLoopWithWhatItHadBefore) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // a new process, where nobody has asked yet
    EXPECT_EXIT(
        {
            auto& own = RunLoop::current();
            bool ran = false;
            own.post([&] { ran = true; });
            RunLoop::main().dispatchPending();
            const bool good = ran && &own == &RunLoop::main() && RunLoop::isMainThread();
            const bool others = std::async(std::launch::async, [] { return RunLoop::isMainThread(); }).get();
            _exit(good && !others ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}
