#include "tests/support/FaultyService.h"

#include <utility>

#include "tests/support/Forward.h"

namespace velkor::test {

FaultyService::FaultyService(std::string serviceUrl, std::size_t request, Fault fault)
    : m_serviceUrl(std::move(serviceUrl)), m_faultyRequest(request), m_fault(fault) {
    m_fake.route("", "/", [this](const FakeRequest& received) { return answer(received); });
}

FakeAnswer FaultyService::answer(const FakeRequest& request) {
    const auto real = [&] { return forwarded(request, m_serviceUrl).value_or(FakeAnswer::closeAtOnce()); };
    if (m_requests++ != m_faultyRequest) return real();
    const FakeAnswer failure = FakeAnswer::json(R"({"error":"out of order"})", 500);
    switch (m_fault) {
        case Fault::notForwarded:
            return FakeAnswer::closeAtOnce();
        case Fault::refused:
            return failure;
        case Fault::answerLost:
            real();
            return FakeAnswer::closeAtOnce();
        case Fault::answerReplaced:
            real();
            return failure;
        case Fault::held:
            return FakeAnswer::hang();
        case Fault::answerCut:
            break;
    }
    FakeAnswer answer = real();
    const std::size_t half = answer.body.size() / 2;
    return std::move(answer).cutOff(half);
}

}  // namespace velkor::test
