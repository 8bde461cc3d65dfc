#include "platform/concurrency/RunLoopCore.h"

#include <poll.h>

#include <algorithm>
#include <climits>
#include <cmath>

#include "platform/base/Exception.h"

namespace velkor::NS::detail {

namespace {

/// Whole milliseconds to wait, rounded up so that what is waited for is due afterwards.
int millisecondsFor(double seconds) {
    return static_cast<int>(std::clamp(std::ceil(seconds * 1000), 0.0, static_cast<double>(INT_MAX)));
}

int shorter(int one, int other) { return one < 0 ? other : other < 0 ? one : std::min(one, other); }

}  // namespace

RunLoopCore::RunLoopCore() {
    assertThat(uv_loop_init(&m_loop) == 0, "The run loop cannot be made");
    assertThat(uv_async_init(&m_loop, &m_wake, [](uv_async_t*) {}) == 0, "The run loop cannot be woken");
    uv_run(&m_loop, UV_RUN_NOWAIT);  // only now the descriptor tells of posts
}

RunLoopCore::~RunLoopCore() {
    transfers.reset();
    // What is destroyed here may belong to the program and may post again.
    for (bool clear = false; !clear;) {
        auto ready = std::exchange(m_ready, {});
        auto timers = std::exchange(m_timers, {});
        std::unique_lock lock(m_mutex);
        auto posted = std::exchange(m_posted, {});
        lock.unlock();
        clear = ready.empty() && timers.empty() && posted.empty();
    }
    uv_close(reinterpret_cast<uv_handle_t*>(&m_wake), nullptr);
    uv_run(&m_loop, UV_RUN_DEFAULT);
    assertThat(uv_loop_close(&m_loop) == 0, "A run loop ended with open handles");
}

void RunLoopCore::post(std::function<void()> block) {
    std::unique_lock lock(m_mutex);
    m_posted.push_back(std::move(block));
    if (m_posted.size() == 1) uv_async_send(&m_wake);
}

void RunLoopCore::addReady(std::function<void()> block) {
    m_ready.push_back(std::move(block));
    noteChange();
}

void RunLoopCore::noteChange() {
    // What is found ready while collecting runs in the same turn. Otherwise a block may make the change and then run a loop of
    // the host's own, which knows nothing but the descriptor.
    if (!m_isCollecting) uv_async_send(&m_wake);
}

int RunLoopCore::timeoutMilliseconds() {
    if (!m_ready.empty()) return 0;
    {
        std::unique_lock lock(m_mutex);
        if (!m_posted.empty()) return 0;
    }
    uv_update_time(&m_loop);
    int timeout = uv_backend_timeout(&m_loop);
    if (!m_timers.empty()) {
        const double left = m_timers.begin()->first.first - now();
        // A clock that is held brings nothing forward by waiting.
        if (!m_heldTime || left <= 0) timeout = shorter(timeout, millisecondsFor(left));
    }
    return timeout;
}

void RunLoopCore::wait(double seconds) {
    pollfd descriptor{fileDescriptor(), POLLIN, 0};
    poll(&descriptor, 1, shorter(timeoutMilliseconds(), seconds < 0 ? -1 : millisecondsFor(seconds)));
}

void RunLoopCore::dispatch() {
    struct Turn {
        RunLoopCore& core;
        ~Turn() {
            if (!core.m_ready.empty()) core.noteChange();
        }
    } turn{*this};

    collect();
    // A nested turn may have taken some of them.
    for (std::size_t left = m_ready.size(); left > 0 && !m_ready.empty(); --left) {
        auto block = std::move(m_ready.front());
        m_ready.pop_front();
        if (!m_ready.empty()) noteChange();  // should the block run a loop of the host's own
        block();
    }
}

void RunLoopCore::collect() {
    m_isCollecting = true;
    uv_run(&m_loop, UV_RUN_NOWAIT);
    m_isCollecting = false;
    for (const double time = now(); !m_timers.empty() && m_timers.begin()->first.first <= time;) {
        m_ready.push_back(std::move(m_timers.begin()->second));
        m_timers.erase(m_timers.begin());
    }
    std::unique_lock lock(m_mutex);
    if (m_ready.empty()) {
        m_ready.swap(m_posted);
    } else {
        std::move(m_posted.begin(), m_posted.end(), std::back_inserter(m_ready));
        m_posted.clear();
    }
}

void RunLoopCore::endRun() noexcept {
    --m_runs;
    if (m_stops > 0) --m_stops;
}

double RunLoopCore::now() const { return m_heldTime ? *m_heldTime : static_cast<double>(uv_hrtime()) / 1e9; }

RunLoopCore::TimerKey RunLoopCore::schedule(double deadline, std::function<void()> block) {
    const TimerKey key(deadline, ++m_lastTimer);
    m_timers.emplace(key, std::move(block));
    noteChange();
    return key;
}

void RunLoopCore::setTime(double seconds) {
    m_heldTime = seconds;
    noteChange();
}

std::optional<double> RunLoopCore::nextDeadline() const {
    if (m_timers.empty()) return std::nullopt;
    return m_timers.begin()->first.first;
}

}  // namespace velkor::NS::detail
