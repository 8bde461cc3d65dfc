#include "platform/url/Transfer.h"

#include <algorithm>
#include <utility>

#include "platform/base/Exception.h"
#include "platform/concurrency/RunLoop.h"
#include "platform/url/TransferError.h"
#include "platform/url/TransferLoop.h"

namespace velkor::NS::detail {

void Transfer::scheduleIn(RunLoop& loop) {
    m_core = loop.core().weak_from_this();
    m_scheduled = true;
}

void Transfer::start() {
    assertThat(!m_started, "A connection starts once");
    m_started = true;
    if (m_cancelled) return;
    if (!m_scheduled) scheduleIn(RunLoop::current());
    auto core = m_core.lock();
    assertThat(core && core->isCurrentThread(), "A connection starts on the thread of its run loop");
    auto& loop = TransferLoop::of(*core);
    m_handle = loop.takeHandle();
    m_error = configure();
    if (m_error) {
        m_ended = true;
        loop.giveBack(std::move(m_handle));
        announce();
    } else {
        loop.add(*this, m_handle.get());
    }
}

void Transfer::cancel() {
    m_cancelled = true;
    m_delegate = nullptr;
    if (!m_handle) return;
    auto core = m_core.lock();
    assertThat(core && core->isCurrentThread(), "A connection is cancelled on the thread of its run loop");
    core->transfers->remove(*this, m_handle.get());
    core->transfers->giveBack(std::move(m_handle));
}

void Transfer::abandon(CURLM* multi) {
    curl_multi_remove_handle(multi, m_handle.get());
    m_handle.reset();
    m_delegate = nullptr;
}

void Transfer::ended(CURLcode result) {
    m_ended = true;
    if (result != CURLE_OK) {
        m_error = errorFor(result);
    } else {
        if (m_responseState == ResponseState::none) finishHead();
        curl_off_t sent = 0;
        curl_easy_getinfo(m_handle.get(), CURLINFO_SIZE_UPLOAD_T, &sent);
        if (m_request.httpBodyLength() > 0) m_sent = std::max<std::int64_t>(m_sent, sent);
    }
    if (auto core = m_core.lock()) core->transfers->giveBack(std::move(m_handle));
    announce();
}

Error Transfer::errorFor(CURLcode result) const {
    if (m_tooLong) return transferError(URLError::bodyTooLong, {});
    if (m_headTooLong) return transferError(URLError::badServerResponse, {});
    return transferError(codeFor(result, m_head.statusCode() != 0), *m_errorText ? m_errorText : curl_easy_strerror(result));
}

// What libcurl reports. Nothing here may raise or call out.

void Transfer::noteMove() noexcept {
    m_lastMove = now();
    m_seemsIdle = false;
}

std::size_t Transfer::headerCame(char* bytes, std::size_t, std::size_t size, void* self) {
    auto& transfer = *static_cast<Transfer*>(self);
    transfer.noteMove();
    return transfer.takeHeaderLine(std::string_view(bytes, size)) ? size : 0;
}

bool Transfer::takeHeaderLine(std::string_view line) {
    if (m_responseState != ResponseState::none) return true;  // what follows a chunked body
    const auto step = m_head.take(line);
    m_headTooLong = step == ResponseHead::Step::tooLong;
    if (step == ResponseHead::Step::redirect) prepareRedirect();
    return step == ResponseHead::Step::complete ? finishHead() : !m_headTooLong;
}

/// The answer to be told: false when it announces more than may be taken in.
bool Transfer::finishHead() {
    m_response.statusCode = m_head.statusCode();
    m_response.headers = m_head.headers();
    const char* url = nullptr;
    curl_easy_getinfo(m_handle.get(), CURLINFO_EFFECTIVE_URL, &url);
    m_response.url = url ? url : m_request.url();
    curl_off_t length = -1;
    curl_easy_getinfo(m_handle.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    m_response.expectedContentLength = length;
    m_responseState = ResponseState::complete;
    announce();
    m_tooLong = length > 0 && static_cast<std::uint64_t>(length) > m_maximumSize && m_request.httpMethod() != "HEAD";
    return !m_tooLong;
}

std::size_t Transfer::bytesCame(char* bytes, std::size_t, std::size_t size, void* self) {
    auto& transfer = *static_cast<Transfer*>(self);
    transfer.noteMove();
    transfer.m_received += size;
    transfer.m_tooLong = transfer.m_received > transfer.m_maximumSize;
    if (transfer.m_tooLong) return 0;
    transfer.m_bytes.append(bytes, size);
    transfer.announce();
    return size;
}

std::size_t Transfer::bytesWanted(char* room, std::size_t, std::size_t size, void* self) {
    return static_cast<Transfer*>(self)->m_bodyReader.read(room, size);
}

int Transfer::rewound(void* self, curl_off_t offset, int origin) {
    auto& reader = static_cast<Transfer*>(self)->m_bodyReader;
    const bool found = origin == SEEK_SET && offset >= 0 && reader.seek(static_cast<std::uint64_t>(offset));
    return found ? CURL_SEEKFUNC_OK : CURL_SEEKFUNC_FAIL;
}

int Transfer::progressed(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t sent) {
    auto& transfer = *static_cast<Transfer*>(self);
    if (sent == std::exchange(transfer.m_sentNow, sent)) return 0;
    transfer.noteMove();
    if (sent > transfer.m_sent) {  // not while a body goes out again to where it was redirected
        transfer.m_sent = sent;
        transfer.announce();
    }
    return 0;
}

// What the delegate is told, in the loop's ready list.

void Transfer::announce() {
    if (m_announced) return;
    auto core = m_core.lock();
    if (!core) return;
    m_announced = true;
    core->addReady([self = shared_from_this()] { self->deliver(); });
}

bool Transfer::hasNews() const noexcept {
    return m_delegate && (m_sent > m_sentTold || m_responseState == ResponseState::complete || !m_bytes.empty() || m_ended);
}

void Transfer::deliver() {
    m_announced = false;
    struct Rest {
        Transfer& transfer;
        ~Rest() {
            if (transfer.hasNews()) transfer.announce();  // the delegate has raised
        }
    } rest{*this};
    while (hasNews()) tellNext();
}

void Transfer::tellNext() {
    if (m_sent > m_sentTold) {
        const auto step = m_sent - std::exchange(m_sentTold, m_sent);
        m_delegate->connectionDidSendBodyData(m_connection, step, m_sent, static_cast<std::int64_t>(m_request.httpBodyLength()));
    } else if (m_responseState == ResponseState::complete) {
        m_responseState = ResponseState::told;
        m_delegate->connectionDidReceiveResponse(m_connection, m_response);
    } else if (!m_bytes.empty()) {
        auto bytes = std::exchange(m_bytes, {});
        m_delegate->connectionDidReceiveData(m_connection, bytes);
        if (m_bytes.empty()) {  // its memory serves again
            bytes.clear();
            m_bytes = std::move(bytes);
        }
    } else {
        auto* delegate = std::exchange(m_delegate, nullptr);
        if (m_error) {
            delegate->connectionDidFailWithError(m_connection, *m_error);
        } else {
            delegate->connectionDidFinishLoading(m_connection);
        }
    }
}

}  // namespace velkor::NS::detail
