#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include "tests/support/FakeService.h"

namespace velkor::test {

/// One address before several services: each request goes to the next one in turn, and on to the one after it when nobody listens
/// there. Any thread.
class RoundRobin {
public:
    /// The base URLs of the services.
    explicit RoundRobin(std::vector<std::string> services);

    std::string url() const { return m_front.url(); }
    /// How many requests each service has answered.
    std::vector<std::size_t> answered() const;

private:
    FakeAnswer forward(const FakeRequest& request);

    const std::vector<std::string> m_services;
    mutable std::mutex m_mutex;  // guards the rest
    std::size_t m_next = 0;
    std::vector<std::size_t> m_answered;
    FakeService m_front;  // last: its threads use the rest
};

}  // namespace velkor::test
