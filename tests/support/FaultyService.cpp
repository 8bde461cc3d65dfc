#include "tests/support/FaultyService.h"

#include <curl/curl.h>

#include <memory>
#include <string_view>
#include <utility>

namespace velkor::test {

namespace {

std::size_t appendBody(char* bytes, std::size_t size, std::size_t count, void* answer) {
    static_cast<FakeAnswer*>(answer)->body.append(bytes, size * count);
    return size * count;
}

FakeAnswer forwarded(const FakeRequest& request, const std::string& serviceUrl) {
    const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), curl_easy_cleanup);
    curl_slist* list = curl_slist_append(nullptr, "Expect:");
    bool hasAccept = false;
    for (const auto& [name, value] : request.headers) {
        if (name == "Content-Length" || name == "Connection") continue;
        hasAccept |= name == "Accept";
        list = curl_slist_append(list, (name + ": " + value).c_str());
    }
    if (!hasAccept) list = curl_slist_append(list, "Accept:");
    const std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(list, curl_slist_free_all);
    FakeAnswer answer;
    curl_easy_setopt(curl.get(), CURLOPT_URL, (serviceUrl + request.target).c_str());
    curl_easy_setopt(curl.get(), CURLOPT_PROXY, "");
    curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, 30L);
    curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
    curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, request.body.data());
    if (request.method == "GET" && request.body.empty()) curl_easy_setopt(curl.get(), CURLOPT_HTTPGET, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_CUSTOMREQUEST, request.method.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, appendBody);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &answer);
    if (curl_easy_perform(curl.get()) != CURLE_OK) return FakeAnswer::closeAtOnce();
    long status = 0;
    const char* type = nullptr;
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
    curl_easy_getinfo(curl.get(), CURLINFO_CONTENT_TYPE, &type);
    answer.status = static_cast<int>(status);
    if (type) answer.headers.emplace_back("Content-Type", type);
    return answer;
}

}  // namespace

FaultyService::FaultyService(std::string serviceUrl, std::size_t request, Fault fault)
    : m_serviceUrl(std::move(serviceUrl)), m_faultyRequest(request), m_fault(fault) {
    m_fake.route("", "/", [this](const FakeRequest& received) { return answer(received); });
}

FakeAnswer FaultyService::answer(const FakeRequest& request) {
    if (m_requests++ != m_faultyRequest) return forwarded(request, m_serviceUrl);
    const FakeAnswer failure = FakeAnswer::json(R"({"error":"out of order"})", 500);
    switch (m_fault) {
        case Fault::notForwarded:
            return FakeAnswer::closeAtOnce();
        case Fault::refused:
            return failure;
        case Fault::answerLost:
            forwarded(request, m_serviceUrl);
            return FakeAnswer::closeAtOnce();
        case Fault::answerReplaced:
            forwarded(request, m_serviceUrl);
            return failure;
        case Fault::held:
            return FakeAnswer::hang();
        case Fault::answerCut:
            break;
    }
    FakeAnswer answer = forwarded(request, m_serviceUrl);
    const std::size_t half = answer.body.size() / 2;
    return std::move(answer).cutOff(half);
}

}  // namespace velkor::test
