#include "service/Arrivals.h"

#include <vector>

namespace velkor::service {

Arrivals::~Arrivals() {
    m_thread.request_stop();
    if (m_thread.joinable()) m_thread.join();
}

bool Arrivals::has(std::int64_t user) const {
    std::lock_guard guard(m_mutex);
    return m_counts.contains(user);
}

void Arrivals::remindAll(std::stop_token stop) {
    std::unique_lock guard(m_mutex);
    while (!stop.stop_requested()) {
        std::vector<std::int64_t> users;
        for (const auto& [user, count] : m_counts) users.push_back(user);
        m_isNew = false;
        guard.unlock();
        for (const auto user : users) m_remind(user);
        guard.lock();
        if (m_counts.empty()) {
            m_changed.wait(guard, stop, [&] { return m_isNew; });
        } else {
            m_changed.wait_for(guard, stop, m_period, [&] { return m_isNew; });
        }
    }
}

Arrivals::Arrival::Arrival(Arrivals& arrivals, std::int64_t user) : m_arrivals(arrivals), m_user(user) {
    std::lock_guard guard(arrivals.m_mutex);
    // First, for what cannot be reminded of must not be counted.
    if (!arrivals.m_thread.joinable()) {
        arrivals.m_thread = std::jthread([&arrivals](std::stop_token stop) { arrivals.remindAll(std::move(stop)); });
    }
    if (++arrivals.m_counts[user] > 1) return;
    arrivals.m_isNew = true;
    arrivals.m_changed.notify_one();
}

Arrivals::Arrival::~Arrival() {
    std::lock_guard guard(m_arrivals.m_mutex);
    auto found = m_arrivals.m_counts.find(m_user);
    if (--found->second == 0) m_arrivals.m_counts.erase(found);
}

}  // namespace velkor::service
