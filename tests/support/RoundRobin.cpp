#include "tests/support/RoundRobin.h"

#include "tests/support/Forward.h"

namespace velkor::test {

RoundRobin::RoundRobin(std::vector<std::string> services) : m_services(std::move(services)), m_answered(m_services.size()) {
    m_front.route("", "/", [this](const FakeRequest& request) { return forward(request); });
}

std::vector<std::size_t> RoundRobin::answered() const {
    std::lock_guard guard(m_mutex);
    return m_answered;
}

FakeAnswer RoundRobin::forward(const FakeRequest& request) {
    for (std::size_t tries = 0; tries < m_services.size(); ++tries) {
        std::size_t place;
        {
            std::lock_guard guard(m_mutex);
            place = m_next++ % m_services.size();
        }
        auto answer = forwarded(request, m_services[place]);
        if (!answer) continue;
        std::lock_guard guard(m_mutex);
        ++m_answered[place];
        return *std::move(answer);
    }
    return FakeAnswer::text("no service", 502);
}

}  // namespace velkor::test
