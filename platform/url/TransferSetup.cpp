// How a request becomes the options of a libcurl handle.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <mutex>

#include "platform/url/CookieStorage.h"
#include "platform/url/HeaderName.h"
#include "platform/url/Transfer.h"
#include "platform/url/TransferError.h"

namespace velkor::NS::detail {

namespace {

constexpr long mostRedirects = 16;
constexpr std::size_t longestBodyPutTogether = 64 << 10;
constexpr double usualTimeout = 60;  // seconds
constexpr double mostTimeout = 1e6;

bool isToken(std::string_view text) {
    return !text.empty() && text.find_first_not_of(
                                "!#$%&'*+-.^_`|~0123456789abcdefghijklmnopqrstuvwxyz"
                                "ABCDEFGHIJKLMNOPQRSTUVWXYZ") == std::string_view::npos;
}

bool hasScheme(std::string_view url, std::string_view scheme) {
    return url.size() >= scheme.size() && sameHeaderName(url.substr(0, scheme.size()), scheme);
}

/// Hosts that are asked without the environment's proxy: those that the environment names, and this machine.
const std::string& hostsWithoutProxy() {
    static const std::string& hosts = *[] {
        const char* named = std::getenv("no_proxy");
        if (!named) named = std::getenv("NO_PROXY");
        const std::string_view given = named ? named : "";
        if (given == "*") return new std::string(given);
        return new std::string(std::string("localhost,127.0.0.0/8,::1") + (given.empty() ? "" : ",") + std::string(given));
    }();  // threads may send while the process exits
    return hosts;
}

struct Authority {
    std::mutex mutex;
    std::string file;  // guarded by the mutex
};

Authority& authority() {
    static auto& shared = *new Authority;  // threads may send while the process exits
    return shared;
}

}  // namespace

void setCertificateAuthorityFile(std::string path) {
    const std::lock_guard lock(authority().mutex);
    authority().file = std::move(path);
}

template <class T>
void Transfer::set(CURLoption option, T value) noexcept {
    const CURLcode result = curl_easy_setopt(m_handle.get(), option, value);
    if (m_optionResult == CURLE_OK) m_optionResult = result;
}

/// The error of a request that cannot be sent.
std::optional<Error> Transfer::configure() {
    const std::string& url = m_request.url();
    if (url.empty()) return transferError(URLError::badURL, {});
    if (!hasScheme(url, "http://") && !hasScheme(url, "https://")) return transferError(URLError::unsupportedURL, {});
    if (url.find('\0') != std::string::npos || !isToken(m_request.httpMethod())) return transferError(URLError::badURL, {});

    set(CURLOPT_URL, url.c_str());
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    // What was sent in secret, perhaps a password in the body, does not go on in the clear.
    set(CURLOPT_REDIR_PROTOCOLS_STR, hasScheme(url, "https://") ? "https" : "http,https");
    set(CURLOPT_HTTP_VERSION, long(CURL_HTTP_VERSION_1_1));
    set(CURLOPT_FOLLOWLOCATION, 1L);
    set(CURLOPT_MAXREDIRS, mostRedirects);
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_QUICK_EXIT, 1L);  // a cancelled transfer does not wait for the resolver
    set(CURLOPT_NOPROXY, hostsWithoutProxy().c_str());
    set(CURLOPT_SSLVERSION, long(CURL_SSLVERSION_TLSv1_2));
    {
        const std::lock_guard lock(authority().mutex);
        if (!authority().file.empty()) set(CURLOPT_CAINFO, authority().file.c_str());
    }
    set(CURLOPT_SHARE, CookieStorage::sharedStorage().shareHandle());
    set(CURLOPT_COOKIEFILE, "");

    const double timeout = m_request.timeoutInterval() > 0 ? std::min(m_request.timeoutInterval(), mostTimeout) : usualTimeout;
    m_timeout = static_cast<std::uint64_t>(std::ceil(timeout * 1000));
    set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(m_timeout));
    noteMove();

    set(CURLOPT_ERRORBUFFER, m_errorText);
    set(CURLOPT_HEADERFUNCTION, &Transfer::headerCame);
    set(CURLOPT_HEADERDATA, this);
    set(CURLOPT_WRITEFUNCTION, &Transfer::bytesCame);
    set(CURLOPT_WRITEDATA, this);
    configureBody();
    if (!configureHeaders()) return transferError(URLError::unknown, "A header of the request is not valid");
    if (m_optionResult != CURLE_OK) return transferError(URLError::badURL, curl_easy_strerror(m_optionResult));
    return std::nullopt;
}

void Transfer::configureBody() {
    const std::string& method = m_request.httpMethod();
    const std::size_t length = m_request.httpBodyLength();
    if (method == "HEAD") {
        set(CURLOPT_NOBODY, 1L);
        return;
    }
    const bool announcesBody = method == "POST" || method == "PUT" || method == "PATCH";
    if (length > 0 || announcesBody) configureBodyBytes(length);
    if (length > 0) {
        set(CURLOPT_XFERINFOFUNCTION, &Transfer::progressed);
        set(CURLOPT_XFERINFODATA, this);
        set(CURLOPT_NOPROGRESS, 0L);
    }
    if (method != (announcesBody || length > 0 ? "POST" : "GET")) {
        set(CURLOPT_CUSTOMREQUEST, method.c_str());
        // Only a POST turns into a GET when it is redirected; any other method goes on with its body.
        set(CURLOPT_POSTREDIR, long(CURL_REDIR_POST_301 | CURL_REDIR_POST_302));
    }
}

/// A short body is put together, so that it goes out in one step with the head; a large one is read part by part.
void Transfer::configureBodyBytes(std::size_t length) {
    set(CURLOPT_POST, 1L);
    set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(length));
    if (m_request.httpBodyParts().size() <= 1 || length <= longestBodyPutTogether) {
        m_body = m_request.httpBody();
        set(CURLOPT_POSTFIELDS, m_body.empty() ? "" : m_body.view().data());
    } else {
        set(CURLOPT_READFUNCTION, &Transfer::bytesWanted);
        set(CURLOPT_READDATA, this);
        set(CURLOPT_SEEKFUNCTION, &Transfer::rewound);
        set(CURLOPT_SEEKDATA, this);
    }
}

/// A "see other" asks for a GET, whatever the method was.
void Transfer::prepareRedirect() {
    if (m_head.statusCode() == 303 && m_request.httpMethod() != "HEAD") {
        curl_easy_setopt(m_handle.get(), CURLOPT_CUSTOMREQUEST, nullptr);
    }
}

bool Transfer::configureHeaders() {
    bool accepts = false;
    bool typed = false;
    for (const auto& [name, value] : m_request.allHTTPHeaderFields()) {
        // The length is counted from the bytes: the request's own may count characters.
        if (sameHeaderName(name, "Content-Length") || sameHeaderName(name, "Expect")) continue;
        accepts = accepts || sameHeaderName(name, "Accept");
        typed = typed || sameHeaderName(name, "Content-Type");
        if (!isToken(name) || value.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos) return false;
        if (!addHeaderLine(value.empty() ? name + ";" : name + ": " + value)) return false;
    }
    // Without these lines libcurl would send headers of its own.
    const bool complete =
        addHeaderLine("Expect:") && (accepts || addHeaderLine("Accept:")) && (typed || addHeaderLine("Content-Type:"));
    set(CURLOPT_HTTPHEADER, m_headers.get());
    return complete;
}

bool Transfer::addHeaderLine(const std::string& line) {
    curl_slist* longer = curl_slist_append(m_headers.get(), line.c_str());
    if (!longer) return false;
    m_headers.release();
    m_headers.reset(longer);
    return true;
}

}  // namespace velkor::NS::detail
