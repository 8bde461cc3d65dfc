#pragma once

#include <optional>

#include "platform/concurrency/RunLoop.h"
#include "platform/concurrency/RunLoopCore.h"

namespace velkor::test {

/// Holds the clock that a run loop's timers follow, so that a test moves it by hand: no timer fires but by `advance`. Time-outs
/// of connections and of `runUntil` keep following the machine's clock. On the loop's thread; at its end time runs again.
class ManualTime {
public:
    explicit ManualTime(NS::RunLoop& loop = NS::RunLoop::main()) : m_loop(loop) { loop.core().holdTime(); }
    ~ManualTime() { m_loop.core().releaseTime(); }
    ManualTime(const ManualTime&) = delete;
    ManualTime& operator=(const ManualTime&) = delete;

    /// Lets so many seconds pass: each timer fires as often as it would, in order, and what is posted meanwhile runs.
    void advance(double seconds) {
        auto& core = m_loop.core();
        const double end = core.now() + seconds;
        for (std::optional<double> next; (next = core.nextDeadline()) && *next <= end;) {
            if (*next > core.now()) core.setTime(*next);
            m_loop.dispatchPending();
        }
        core.setTime(end);
        m_loop.dispatchPending();
    }

    /// Seconds until the next timer fires; none without timers.
    std::optional<double> untilNextTimer() const {
        auto next = m_loop.core().nextDeadline();
        if (!next) return std::nullopt;
        return *next - m_loop.core().now();
    }

private:
    NS::RunLoop& m_loop;
};

}  // namespace velkor::test
