#pragma once

#include <cstddef>
#include <string>

#include "tests/support/FakeService.h"

namespace velkor::test {

/// What goes wrong with one request on its way.
enum class Fault {
    notForwarded,    // the connection ends before the service sees the request
    answerLost,      // the service has answered, the connection ends
    answerCut,       // in the middle of the answer
    refused,         // 500 in the service's place
    answerReplaced,  // the service has answered, the client gets 500
    held,            // nothing comes of it
};
inline constexpr int survivableFaults = 5;  // those that a client notices at once

/// Stands between a host and the service and lets one request fail; hands all others on. Runs from construction to destruction.
class FaultyService {
public:
    /// The request with this number fails, counted from 0.
    FaultyService(std::string serviceUrl, std::size_t request, Fault fault);

    std::string url() const { return m_fake.url(); }
    /// Waits for that request; false when it does not come.
    bool awaitFault() { return m_fake.awaitRequests(m_faultyRequest + 1); }

private:
    FakeAnswer answer(const FakeRequest& request);

    const std::string m_serviceUrl;
    const std::size_t m_faultyRequest;
    const Fault m_fault;
    std::size_t m_requests = 0;
    FakeService m_fake;  // last: it calls back from its threads while it lives
};

}  // namespace velkor::test
