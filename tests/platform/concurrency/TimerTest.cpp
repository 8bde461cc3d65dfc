#include "platform/concurrency/Timer.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "platform/concurrency/RunLoop.h"
#include "tests/support/ManualTime.h"

using namespace velkor::NS;
using velkor::test::ManualTime;

namespace {

struct TimerTest : testing::Test {
    RunLoop& loop = RunLoop::main();
    ManualTime time{loop};
    int ticks = 0;

    std::shared_ptr<Timer> schedule(double interval, bool repeats) {
        return Timer::scheduledTimer(loop, interval, repeats, [this](Timer&) { ++ticks; });
    }
};

}  // namespace

TEST_F(TimerTest, FiresOnceOrAgainAndAgainUntilItIsInvalid) {
    auto once = schedule(5, false);
    time.advance(4.9);
    EXPECT_EQ(ticks, 0);
    EXPECT_TRUE(once->isValid());
    time.advance(0.2);
    EXPECT_EQ(ticks, 1);
    EXPECT_FALSE(once->isValid());
    time.advance(60);
    EXPECT_EQ(ticks, 1);

    auto again = schedule(60, true);
    EXPECT_EQ(again->timeInterval(), 60);
    time.advance(180);
    EXPECT_EQ(ticks, 4);
    EXPECT_NEAR(*time.untilNextTimer(), 60, 1e-6);
    again->invalidate();
    again->invalidate();
    EXPECT_FALSE(again->isValid());
    time.advance(180);
    EXPECT_EQ(ticks, 4);
}

TEST_F(TimerTest, ALateOneDoesNotCatchUp) {
    auto timer = schedule(10, true);
    loop.core().setTime(loop.core().now() + 37);
    for (int turn = 0; turn < 3; ++turn) loop.dispatchPending();
    EXPECT_EQ(ticks, 1);
    EXPECT_NEAR(*time.untilNextTimer(), 3, 1e-6) << "it stays on its grid";
    timer->invalidate();
}

TEST_F(TimerTest, FiresInTheOrderOfTheDeadlines) {
    std::string order;
    for (auto [interval, name] : {std::pair(2.0, 'c'), std::pair(1.0, 'a'), std::pair(1.0, 'b'), std::pair(-5.0, 'n')}) {
        Timer::scheduledTimer(loop, interval, false, [&order, name](Timer&) { order += name; });
    }
    loop.core().setTime(loop.core().now() + 3);
    loop.dispatchPending();
    EXPECT_EQ(order, "nabc");
}

TEST_F(TimerTest, AnInvalidOneThatIsAlreadyDueIsNotCalled) {
    std::shared_ptr<Timer> second;
    auto first = Timer::scheduledTimer(loop, 1, true, [&](Timer& self) {
        self.invalidate();
        second->invalidate();
    });
    second = schedule(1, false);
    time.advance(10);
    EXPECT_EQ(ticks, 0);
    EXPECT_FALSE(first->isValid());
}

TEST_F(TimerTest, TheLoopKeepsItAliveAndLetsItGo) {
    auto held = std::make_shared<int>(0);
    std::weak_ptr<Timer> watched = Timer::scheduledTimer(loop, 1, false, [held](Timer&) { ++*held; });
    EXPECT_FALSE(watched.expired());
    time.advance(1);
    EXPECT_EQ(*held, 1);
    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(held.use_count(), 1);
}

TEST_F(TimerTest, FireCallsItAtOnce) {
    auto again = schedule(10, true);
    time.advance(4);
    again->fire();
    EXPECT_EQ(ticks, 1);
    EXPECT_NEAR(*time.untilNextTimer(), 6, 1e-6) << "its schedule stays";
    again->invalidate();
    again->fire();
    EXPECT_EQ(ticks, 1);

    auto once = schedule(10, false);
    once->fire();
    EXPECT_EQ(ticks, 2);
    EXPECT_FALSE(once->isValid());
    time.advance(10);
    EXPECT_EQ(ticks, 2);
}

TEST_F(TimerTest, ABlockThatRaisesOrRunsTheLoopKeepsItsTimer) {
    auto raising = Timer::scheduledTimer(loop, 1, true, [](Timer&) { throw std::runtime_error("tick"); });
    EXPECT_THROW(time.advance(1), std::runtime_error);
    EXPECT_THROW(time.advance(1), std::runtime_error);
    raising->invalidate();

    int depth = 0;
    int deepest = 0;
    auto nesting = Timer::scheduledTimer(loop, 1, true, [&](Timer&) {
        deepest = std::max(deepest, ++depth);
        loop.core().setTime(loop.core().now() + 5);
        loop.dispatchPending();
        --depth;
        ++ticks;
    });
    time.advance(1);
    EXPECT_EQ(deepest, 1) << "never called inside itself";
    EXPECT_GE(ticks, 1);
    nesting->invalidate();
}

TEST(TimerOnTheMachinesClockTest, FiresWhileTheLoopRuns) {
    auto& loop = RunLoop::main();
    int ticks = 0;
    auto timer = Timer::scheduledTimer(loop, 0.002, true, [&](Timer&) { ++ticks; });
    EXPECT_TRUE(loop.runUntil([&] { return ticks == 3; }, 30));
    timer->invalidate();
}
