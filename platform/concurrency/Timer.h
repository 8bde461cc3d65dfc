#pragma once

#include <functional>
#include <memory>

#include "platform/base/Export.h"
#include "platform/base/Object.h"

namespace velkor::NS {

class RunLoop;

/// A timer on a run loop; the loop keeps it alive until it is invalidated or, not repeating, has fired. A repeating timer that
/// was late does not catch up missed ticks. All calls on the loop's thread. After `invalidate()` the block is never called.
class VELKOR_EXPORT Timer : public Object {
public:
    /// Intervals are in seconds; below 0 counts as 0.
    static std::shared_ptr<Timer> scheduledTimer(RunLoop& loop, double interval, bool repeats, std::function<void(Timer&)> block);
    ~Timer() override;

    void invalidate();
    bool isValid() const noexcept;
    /// Seconds between two ticks.
    double timeInterval() const noexcept;
    /// Runs the block now, as if the timer had fired; an invalid timer does nothing.
    void fire();

private:
    Timer();
    struct State;
    std::unique_ptr<State> m_state;
};

}  // namespace velkor::NS
