#pragma once

#include <functional>
#include <memory>

#include "platform/base/Export.h"

namespace velkor::NS {

namespace detail {
class RunLoopCore;
}

/// One thread's loop of timers, connections and posted blocks. The main run loop belongs to the thread that first asks for
/// `main()`; every other thread gets a loop of its own from `current()` on demand, which ends with its thread.
/// A host runs it, or embeds it in its own loop: wait for `fileDescriptor()` to become readable for at most
/// `timeoutMilliseconds()`, then call `dispatchPending()`. Callbacks run only inside run, runUntil and dispatchPending, never
/// inside a call into libuv, libcurl or SQLite, so they may raise, and runUntil or the host's own loop may be nested in them; an
/// exception leaves the call that was dispatching.
class VELKOR_EXPORT RunLoop {
public:
    static RunLoop& main();
    static RunLoop& current();
    /// Whether the calling thread is the main thread; when nobody has asked for `main()` yet, the caller becomes it.
    static bool isMainThread();

    RunLoop(const RunLoop&) = delete;
    RunLoop& operator=(const RunLoop&) = delete;
    ~RunLoop();

    /// Runs until `stop()`.
    void run();
    /// Runs until the condition holds (asked after every turn) or `timeoutSeconds` have passed; returns whether it holds. A
    /// negative time-out waits without limit.
    bool runUntil(const std::function<bool()>& condition, double timeoutSeconds);
    /// Makes the innermost `run()` return, after the blocks posted before; any thread. Kept for the next `run()` when none has
    /// dispatched it.
    void stop();

    /// Readable when something is to be dispatched; the same for the life of the loop. Only to be waited for.
    int fileDescriptor() const;
    /// How long the host may wait at most; -1: until the descriptor is readable. Asked after each dispatchPending: whatever
    /// brings work forward later, also inside the callbacks of an outer one, makes the descriptor readable.
    int timeoutMilliseconds() const;
    /// Runs what is due, without waiting.
    void dispatchPending();

    /// Appends a block that the loop runs in one of its next turns; any thread, in the order of the calls.
    void post(std::function<void()> block);
    bool isCurrentThread() const noexcept;

    /// For timers and connections of this layer only.
    detail::RunLoopCore& core() noexcept { return *m_core; }

private:
    RunLoop();
    std::shared_ptr<detail::RunLoopCore> m_core;
};

}  // namespace velkor::NS
