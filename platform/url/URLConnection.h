#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "platform/base/Error.h"
#include "platform/base/Export.h"
#include "platform/base/Object.h"
#include "platform/url/URLRequest.h"

namespace velkor::NS {

class RunLoop;
class URLConnection;

namespace detail {
class Transfer;
}

struct URLResponse {
    std::string url;
    std::int64_t statusCode = 0;
    /// The announced length of the body in bytes; -1 when the server gives none.
    std::int64_t expectedContentLength = -1;
    URLRequest::Headers headers;
};

/// Codes of connection errors (domain: NetworkErrorDomain), for failures below HTTP.
namespace URLError {
inline constexpr std::int64_t unknown = -1;
inline constexpr std::int64_t badURL = -1000;
inline constexpr std::int64_t timedOut = -1001;
inline constexpr std::int64_t unsupportedURL = -1002;
inline constexpr std::int64_t cannotFindHost = -1003;
inline constexpr std::int64_t cannotConnectToHost = -1004;
inline constexpr std::int64_t connectionLost = -1005;
inline constexpr std::int64_t badServerResponse = -1011;
inline constexpr std::int64_t tooManyRedirects = -1007;
inline constexpr std::int64_t bodyTooLong = -1103;
inline constexpr std::int64_t secureConnectionFailed = -1200;
inline constexpr std::int64_t certificateUntrusted = -1202;
}  // namespace URLError

/// Follows one connection; called on the thread of the run loop it was scheduled on. The last call is exactly one of
/// connectionDidFinishLoading and connectionDidFailWithError; after `cancel()`, and when the loop ends first, there is none.
class VELKOR_EXPORT URLConnectionDelegate {
public:
    virtual ~URLConnectionDelegate() = default;
    virtual void connectionDidReceiveResponse(URLConnection& connection, const URLResponse& response) = 0;
    /// The bytes are valid during the call only.
    virtual void connectionDidReceiveData(URLConnection& connection, std::string_view bytes) = 0;
    /// Body bytes written in this step, in all, and expected in all.
    virtual void connectionDidSendBodyData(URLConnection&, std::int64_t /*written*/, std::int64_t /*total*/,
                                           std::int64_t /*expected*/) {}
    virtual void connectionDidFinishLoading(URLConnection& connection) = 0;
    virtual void connectionDidFailWithError(URLConnection& connection, const Error& error) = 0;
};

/// One HTTP exchange. TLS certificates and host names are verified, only http and https are spoken, responses are never cached,
/// connections to a host are reused, the environment's proxies are asked but for this machine. Redirects are followed (at most
/// 16), from https to https only; credentials in headers never go to another host, but a body follows a 307 or 308 wherever it
/// leads. The length of the body is counted here, whatever Content-Length the request names. The time-out bounds how long nothing
/// moves, not the whole exchange. `setMaximumResponseSize` bounds what is taken in; the request's body, in however many parts, is
/// not copied. All calls on the run loop's thread.
class VELKOR_EXPORT URLConnection : public Object {
public:
    /// The connection keeps a copy of the request; the delegate is not owned and must live until the last call or `cancel()`.
    URLConnection(const URLRequest& request, URLConnectionDelegate* delegate);
    ~URLConnection() override;  // cancels

    /// The loop on which the connection runs and calls its delegate; the current thread's loop unless set. Before `start()`.
    void scheduleInRunLoop(RunLoop& loop);
    void start();
    /// Ends the exchange, or keeps it from starting; the delegate hears nothing more. Harmless at any time.
    void cancel();
    const URLRequest& request() const noexcept;
    /// Most body bytes that an answer may have (1 GiB unless set); a longer one fails with URLError::bodyTooLong.
    void setMaximumResponseSize(std::uint64_t bytes);

    /// Process-wide, before the first connection: a file with certificates (PEM) that are trusted besides those in the system's
    /// directory. Empty: the system's.
    static void setCertificateAuthorityFile(std::string path);

private:
    std::shared_ptr<detail::Transfer> m_transfer;
};

/// The localized text for an HTTP status code, such as "not found" for 404 ("server error" texts for unknown ones).
VELKOR_EXPORT std::string localizedStringForStatusCode(std::int64_t statusCode);

}  // namespace velkor::NS
