#include "platform/concurrency/ThreadPool.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

namespace velkor::NS::detail {

namespace {

/// So long nothing ends before the running jobs are taken to be waiting.
constexpr auto stallTime = std::chrono::milliseconds(20);
constexpr auto idleTime = std::chrono::seconds(10);

}  // namespace

ThreadPool& ThreadPool::shared() {
    static auto* pool = new ThreadPool;  // lives until the process ends, as its threads do
    return *pool;
}

ThreadPool::ThreadPool() : m_width(std::max(2u, std::thread::hardware_concurrency())) {}

void ThreadPool::run(std::function<void()> job) {
    std::unique_lock lock(m_mutex);
    keepOneIdle();
    m_jobs.push_back(std::move(job));
    m_changed.notify_one();
}

/// One thread more than jobs run, so that there is always one to notice that nothing moves.
void ThreadPool::keepOneIdle() {
    if (m_threads > m_running || m_threads > limit()) return;
    try {
        std::thread([this] { work(); }).detach();
        ++m_threads;
    } catch (...) {
        if (m_threads == 0) throw;  // else those that are there do the work
    }
}

void ThreadPool::work() noexcept {
    std::unique_lock lock(m_mutex);
    for (;;) {
        if (!m_changed.wait_for(lock, idleTime, [this] { return !m_jobs.empty(); })) {
            if (m_threads <= m_width + 1) continue;
            --m_threads;
            return;
        }
        if (!mayStart(lock)) continue;
        auto job = std::move(m_jobs.front());
        m_jobs.pop_front();
        ++m_running;
        ++m_started;
        if (!m_jobs.empty()) keepOneIdle();
        lock.unlock();
        job();
        job = nullptr;  // what it holds is destroyed outside of the lock
        lock.lock();
        --m_running;
    }
}

/// Whether the waiting thread may take a job; when all places are taken, it watches for a while whether anything moves.
bool ThreadPool::mayStart(std::unique_lock<std::mutex>& lock) {
    if (m_running < m_width) return true;
    const auto seen = m_started;
    const bool moved = m_changed.wait_for(lock, stallTime, [&] { return m_started != seen || m_running < m_width; });
    return !moved && !m_jobs.empty() && m_running < limit();
}

}  // namespace velkor::NS::detail
