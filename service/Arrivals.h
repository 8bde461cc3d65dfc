#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

namespace velkor::service {

/// The large requests that are on their way in. While a user has one, a thread of its own says so again and again, because other
/// processes on the same database cannot see it. Any thread.
class Arrivals {
public:
    /// `remind` is called for a user as soon as a request comes in, and then once a period, on the thread; it raises nothing.
    Arrivals(std::chrono::milliseconds period, std::function<void(std::int64_t user)> remind)
        : m_period(period), m_remind(std::move(remind)) {}
    ~Arrivals();

    bool has(std::int64_t user) const;

    /// One request, as long as it lives; the arrivals live longer.
    class Arrival {
    public:
        Arrival(Arrivals& arrivals, std::int64_t user);
        ~Arrival();
        Arrival(const Arrival&) = delete;
        Arrival& operator=(const Arrival&) = delete;

    private:
        Arrivals& m_arrivals;
        const std::int64_t m_user;
    };

private:
    void remindAll(std::stop_token stop);

    const std::chrono::milliseconds m_period;
    const std::function<void(std::int64_t user)> m_remind;
    mutable std::mutex m_mutex;             // guards the rest
    std::condition_variable_any m_changed;  // a user came, or the end
    std::map<std::int64_t, int> m_counts;   // by user
    bool m_isNew = false;                   // a user came since the last reminder
    std::jthread m_thread;                  // started by the first arrival
};

}  // namespace velkor::service
