// The one pool of threads of the process.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>

namespace velkor::NS::detail {

/// Runs jobs in the order in which they come. As many jobs run at once as the machine has cores (at least 2); only when none of
/// them ends for a while although others wait, since the running ones wait for something themselves, another one is let in, up to
/// `limit()`. Any thread. Threads are made on demand, and surplus ones end when they have been idle for long.
class ThreadPool {
public:
    static ThreadPool& shared();

    /// The job must not raise: an exception ends the process.
    void run(std::function<void()> job);
    std::size_t width() const noexcept { return m_width; }
    std::size_t limit() const noexcept { return m_width + 8; }

private:
    ThreadPool();
    void work() noexcept;
    bool mayStart(std::unique_lock<std::mutex>& lock);
    void keepOneIdle();

    const std::size_t m_width;
    // Guarded by the mutex.
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<std::function<void()>> m_jobs;
    std::size_t m_threads = 0;
    std::size_t m_running = 0;
    std::size_t m_started = 0;  // jobs, ever
};

}  // namespace velkor::NS::detail
