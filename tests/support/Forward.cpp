#include "tests/support/Forward.h"

#include <curl/curl.h>

#include <memory>
#include <string_view>

#include "platform/url/HeaderName.h"

namespace velkor::test {

namespace {

/// Headers that concern one connection only.
bool isOfConnection(std::string_view name) {
    for (const auto* other : {"Connection", "Content-Length", "Transfer-Encoding"}) {
        if (NS::detail::sameHeaderName(name, other)) return true;
    }
    return false;
}

std::size_t appendBody(char* bytes, std::size_t size, std::size_t count, void* answer) {
    static_cast<FakeAnswer*>(answer)->body.append(bytes, size * count);
    return size * count;
}

std::size_t appendHeader(char* bytes, std::size_t size, std::size_t count, void* answer) {
    std::string_view line(bytes, size * count);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
    const auto colon = line.find(": ");
    if (colon != line.npos && !isOfConnection(line.substr(0, colon))) {
        static_cast<FakeAnswer*>(answer)->headers.emplace_back(line.substr(0, colon), line.substr(colon + 2));
    }
    return size * count;
}

}  // namespace

std::optional<FakeAnswer> forwarded(const FakeRequest& request, const std::string& service) {
    const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> handle(curl_easy_init(), curl_easy_cleanup);
    CURL* curl = handle.get();
    FakeAnswer answer;
    curl_slist* headers = curl_slist_append(nullptr, "Expect:");
    headers = curl_slist_append(headers, "Accept:");  // unless the request has it
    for (const auto& [name, value] : request.headers) {
        if (!isOfConnection(name)) headers = curl_slist_append(headers, (name + ": " + value).c_str());
    }
    curl_easy_setopt(curl, CURLOPT_URL, (service + request.target).c_str());
    curl_easy_setopt(curl, CURLOPT_PATH_AS_IS, 1L);
    curl_easy_setopt(curl, CURLOPT_PROXY, "");
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 120L);
    if (!request.body.empty() || request.method == "POST") {
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.data());
    }
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, appendBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, appendHeader);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &answer);
    const CURLcode code = curl_easy_perform(curl);
    curl_slist_free_all(headers);
    if (code == CURLE_COULDNT_CONNECT) return std::nullopt;
    if (code != CURLE_OK) return FakeAnswer::closeAtOnce();
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    answer.status = static_cast<int>(status);
    return answer;
}

}  // namespace velkor::test
