#include "platform/url/TransferError.h"

#include <string>

#include "platform/persistence/Bundle.h"
#include "platform/url/URLConnection.h"

namespace velkor::NS::detail {

std::int64_t codeFor(CURLcode result, bool answered) noexcept {
    switch (result) {
        case CURLE_URL_MALFORMAT:
            return URLError::badURL;
        // Also libcurl's word for bytes that are no HTTP answer; the first URL's scheme has been checked before.
        case CURLE_UNSUPPORTED_PROTOCOL:
            return answered ? URLError::unsupportedURL : URLError::badServerResponse;
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY:
            return URLError::cannotFindHost;
        case CURLE_COULDNT_CONNECT:
            return URLError::cannotConnectToHost;
        case CURLE_OPERATION_TIMEDOUT:
            return URLError::timedOut;
        case CURLE_TOO_MANY_REDIRECTS:
            return URLError::tooManyRedirects;
        case CURLE_GOT_NOTHING:
        case CURLE_PARTIAL_FILE:
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
            return URLError::connectionLost;
        case CURLE_WEIRD_SERVER_REPLY:
            return URLError::badServerResponse;
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_ISSUER_ERROR:
            return URLError::certificateUntrusted;
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_ENGINE_NOTFOUND:
        case CURLE_SSL_ENGINE_SETFAILED:
        case CURLE_SSL_SHUTDOWN_FAILED:
            return URLError::secureConnectionFailed;
        default:
            return URLError::unknown;
    }
}

namespace {

std::string_view textFor(std::int64_t code) {
    switch (code) {
        case URLError::badURL:
            return "The address is not valid.";
        case URLError::unsupportedURL:
            return "Only http and https addresses can be reached.";
        case URLError::cannotFindHost:
            return "The server's name is not known.";
        case URLError::cannotConnectToHost:
            return "The server cannot be reached.";
        case URLError::timedOut:
            return "The server did not answer in time.";
        case URLError::tooManyRedirects:
            return "The server redirects without end.";
        case URLError::connectionLost:
            return "The connection to the server was lost.";
        case URLError::badServerResponse:
            return "The server's answer cannot be understood.";
        case URLError::bodyTooLong:
            return "The server's answer is too long.";
        case URLError::secureConnectionFailed:
            return "A secure connection to the server cannot be made.";
        case URLError::certificateUntrusted:
            return "The server's certificate is not trusted.";
        default:
            return "The exchange with the server failed.";
    }
}

}  // namespace

Error transferError(std::int64_t code, std::string_view detail) {
    std::string text = Bundle::libraryBundle().localizedString(textFor(code));
    if (!detail.empty()) text.append(" (").append(detail).append(")");
    return Error::withDescription(NetworkErrorDomain, code, text);
}

}  // namespace velkor::NS::detail
