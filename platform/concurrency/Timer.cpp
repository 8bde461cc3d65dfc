#include "platform/concurrency/Timer.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "platform/base/Exception.h"
#include "platform/concurrency/RunLoop.h"
#include "platform/concurrency/RunLoopCore.h"

namespace velkor::NS {

struct Timer::State {
    std::weak_ptr<detail::RunLoopCore> core;
    double interval = 0;
    bool repeats = false;
    double deadline = 0;
    detail::RunLoopCore::TimerKey key;
    // None once the timer is invalid; shared, so that a block may invalidate its own timer.
    std::shared_ptr<const std::function<void(Timer&)>> block;

    /// Asks the loop for the next tick; the loop keeps the timer alive until then.
    void arm(const std::shared_ptr<Timer>& timer) {
        auto loop = core.lock();
        if (!loop || !block) return;
        key = loop->schedule(deadline, [timer] { timer->m_state->tick(timer); });
    }

    void tick(const std::shared_ptr<Timer>& timer) {
        if (!block) return;
        if (!repeats) return timer->fire();
        // Armed again when the block has ended, however it ends: a block that runs the loop is not called inside itself.
        struct Rearm {
            State& state;
            const std::shared_ptr<Timer>& timer;
            ~Rearm() {
                state.advanceDeadline();
                state.arm(timer);
            }
        } rearm{*this, timer};
        timer->fire();
    }

    /// To the first tick of the timer's grid that lies ahead.
    void advanceDeadline() {
        auto loop = core.lock();
        if (!loop) return;
        const double late = std::max(0.0, loop->now() - deadline);
        deadline = interval > 0 ? deadline + interval * (std::floor(late / interval) + 1) : loop->now();
    }
};

Timer::Timer() : m_state(std::make_unique<State>()) {}
Timer::~Timer() = default;

std::shared_ptr<Timer> Timer::scheduledTimer(RunLoop& loop, double interval, bool repeats, std::function<void(Timer&)> block) {
    assertThat(loop.isCurrentThread(), "A timer is scheduled on the loop's thread");
    std::shared_ptr<Timer> timer(new Timer);
    State& state = *timer->m_state;
    state.core = loop.core().weak_from_this();
    state.interval = std::max(0.0, interval);
    state.repeats = repeats;
    state.deadline = loop.core().now() + state.interval;
    state.block = std::make_shared<const std::function<void(Timer&)>>(std::move(block));
    state.arm(timer);
    return timer;
}

void Timer::invalidate() {
    auto keepAlive = shared_from_this();
    m_state->block.reset();
    if (auto loop = m_state->core.lock()) loop->unschedule(m_state->key);
}

bool Timer::isValid() const noexcept { return m_state->block && !m_state->core.expired(); }

double Timer::timeInterval() const noexcept { return m_state->interval; }

void Timer::fire() {
    if (!isValid()) return;
    auto keepAlive = shared_from_this();
    auto block = m_state->block;
    if (!m_state->repeats) invalidate();
    (*block)(*this);
}

}  // namespace velkor::NS
