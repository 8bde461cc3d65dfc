#include "platform/concurrency/RunLoop.h"

#include <atomic>
#include <chrono>
#include <mutex>
#include <utility>

#include "platform/base/Exception.h"
#include "platform/concurrency/RunLoopCore.h"

namespace velkor::NS {

namespace {

std::atomic<RunLoop*> theMainLoop = nullptr;  // lives until the process ends

/// The calling thread's own loop, unless it is the main thread.
struct ThreadLoop {
    std::unique_ptr<RunLoop> loop;
    ~ThreadLoop() {
        // What a dying loop destroys may ask for the thread's loop once more.
        while (loop) std::exchange(loop, nullptr).reset();
    }
};
thread_local ThreadLoop threadLoop;

}  // namespace

RunLoop::RunLoop() : m_core(std::make_shared<detail::RunLoopCore>()) {}
RunLoop::~RunLoop() = default;

RunLoop& RunLoop::main() {
    if (auto* loop = theMainLoop.load(std::memory_order_acquire)) return *loop;
    static std::once_flag once;
    std::call_once(once, [] {
        auto& own = threadLoop.loop;
        theMainLoop.store(own ? own.release() : new RunLoop, std::memory_order_release);
    });
    return *theMainLoop.load(std::memory_order_acquire);
}

RunLoop& RunLoop::current() {
    if (auto* loop = theMainLoop.load(std::memory_order_acquire); loop && loop->isCurrentThread()) return *loop;
    auto& own = threadLoop.loop;
    if (!own) own.reset(new RunLoop);
    return *own;
}

bool RunLoop::isMainThread() { return main().isCurrentThread(); }

void RunLoop::run() {
    assertThat(isCurrentThread(), "A run loop runs on its own thread");
    struct Run {
        detail::RunLoopCore& core;
        explicit Run(detail::RunLoopCore& c) : core(c) { core.beginRun(); }
        ~Run() { core.endRun(); }
    } run(*m_core);
    while (!m_core->stopRequested()) {
        m_core->wait(-1);
        m_core->dispatch();
    }
}

bool RunLoop::runUntil(const std::function<bool()>& condition, double timeoutSeconds) {
    assertThat(isCurrentThread(), "A run loop runs on its own thread");
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    for (double left = timeoutSeconds; !condition();) {
        m_core->wait(left);
        m_core->dispatch();
        if (timeoutSeconds < 0) continue;
        left = timeoutSeconds - std::chrono::duration<double>(Clock::now() - start).count();
        if (left <= 0) return condition();
    }
    return true;
}

void RunLoop::stop() {
    m_core->post([core = m_core.get()] { core->requestStop(); });
}

int RunLoop::fileDescriptor() const { return m_core->fileDescriptor(); }

int RunLoop::timeoutMilliseconds() const { return m_core->timeoutMilliseconds(); }

void RunLoop::dispatchPending() {
    assertThat(isCurrentThread(), "A run loop runs on its own thread");
    m_core->dispatch();
}

void RunLoop::post(std::function<void()> block) { m_core->post(std::move(block)); }

bool RunLoop::isCurrentThread() const noexcept { return m_core->isCurrentThread(); }

}  // namespace velkor::NS
