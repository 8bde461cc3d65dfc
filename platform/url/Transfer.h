// What happens behind one URLConnection.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/concurrency/RunLoopCore.h"
#include "platform/url/BodyReader.h"
#include "platform/url/Curl.h"
#include "platform/url/ResponseHead.h"
#include "platform/url/URLConnection.h"

namespace velkor::NS::detail {

/// See URLConnection.
void setCertificateAuthorityFile(std::string path);

/// One exchange. libcurl's callbacks only note what came (response, bytes, progress, end); the run loop then tells the delegate,
/// so that the delegate may raise, cancel, destroy the connection or run the loop. Owned by its connection, which cancels it at
/// the latest when it is destroyed, and by the loop while there is something to tell. The loop's thread only.
class Transfer : public std::enable_shared_from_this<Transfer> {
public:
    Transfer(URLConnection& connection, const URLRequest& request, URLConnectionDelegate* delegate)
        : m_connection(connection), m_request(request), m_bodyReader(m_request.httpBodyParts()), m_delegate(delegate) {}

    void scheduleIn(RunLoop& loop);
    void start();
    void cancel();
    const URLRequest& request() const noexcept { return m_request; }
    void setMaximumSize(std::uint64_t bytes) noexcept { m_maximumSize = bytes; }

    /// For the TransferLoop: libcurl is done with the handle.
    void ended(CURLcode result);
    /// For the TransferLoop: the loop ends before the transfer.
    void abandon(CURLM* multi);
    CURL* handle() const noexcept { return m_handle.get(); }
    /// Milliseconds of a steady clock.
    static std::uint64_t now() noexcept { return uv_hrtime() / 1'000'000; }
    /// When the time-out ends, if nothing moves until then; on the same clock.
    std::uint64_t idleDeadline() const noexcept { return m_lastMove + m_timeout; }
    /// Whether the time-out has ended. True only at the second asking: a loop that was busy elsewhere has to look at its sockets
    /// first.
    bool isIdleAgain() noexcept { return now() >= idleDeadline() && std::exchange(m_seemsIdle, true); }

private:
    enum class ResponseState { none, complete, told };

    std::optional<Error> configure();
    void configureBody();
    void configureBodyBytes(std::size_t length);
    bool configureHeaders();
    bool addHeaderLine(const std::string& line);
    template <class T>
    void set(CURLoption option, T value) noexcept;

    static std::size_t headerCame(char* bytes, std::size_t, std::size_t size, void* self);
    static std::size_t bytesCame(char* bytes, std::size_t, std::size_t size, void* self);
    static std::size_t bytesWanted(char* room, std::size_t, std::size_t size, void* self);
    static int rewound(void* self, curl_off_t offset, int origin);
    static int progressed(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t sent);
    bool takeHeaderLine(std::string_view line);
    void prepareRedirect();
    void noteMove() noexcept;
    bool finishHead();
    Error errorFor(CURLcode result) const;

    void announce();
    bool hasNews() const noexcept;
    void deliver();
    void tellNext();

    URLConnection& m_connection;
    const URLRequest m_request;
    Data m_body;                        // in one piece, unless it is read part by part
    BodyReader m_bodyReader;            // of the request's parts
    URLConnectionDelegate* m_delegate;  // none after the last call, or when cancelled
    std::weak_ptr<RunLoopCore> m_core;
    std::uint64_t m_maximumSize = std::uint64_t(1) << 30;
    bool m_scheduled = false;
    bool m_started = false;
    bool m_cancelled = false;

    // While the exchange runs.
    CurlEasy m_handle;
    CurlList m_headers;
    char m_errorText[CURL_ERROR_SIZE] = "";
    CURLcode m_optionResult = CURLE_OK;
    bool m_tooLong = false;
    ResponseHead m_head;
    bool m_headTooLong = false;
    std::int64_t m_sentNow = 0;
    std::uint64_t m_received = 0;
    std::uint64_t m_timeout = 0;   // milliseconds
    std::uint64_t m_lastMove = 0;  // see now()
    bool m_seemsIdle = false;

    // What came, until it is told.
    bool m_announced = false;
    URLResponse m_response;
    ResponseState m_responseState = ResponseState::none;
    std::int64_t m_sent = 0;
    std::int64_t m_sentTold = 0;
    std::string m_bytes;
    bool m_ended = false;
    std::optional<Error> m_error;
};

}  // namespace velkor::NS::detail
