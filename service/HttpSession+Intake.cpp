#include <algorithm>
#include <boost/asio/write.hpp>
#include <cctype>

#include "service/HttpSession.h"

namespace velkor::service {
namespace {

constexpr std::uint32_t longestHeader = 32 << 10;
constexpr std::size_t firstChunkedBuffer = admittedUnasked;
constexpr std::uint64_t largestPiece = 512 << 10;  // of a body that a receiver takes; two are in memory

/// Scheme and host by which the client reached the service, also through a proxy; empty for a host that is none.
std::string originOf(const http::request_header<>& head) {
    const auto host = head[http::field::host];
    const bool isHost = !host.empty() && host.size() <= 255 && std::all_of(host.begin(), host.end(), [](unsigned char c) {
        return std::isalnum(c) || c == '.' || c == '-' || c == ':' || c == '[' || c == ']' || c == '_';
    });
    if (!isHost) return {};
    return (head["X-Forwarded-Proto"] == "https" ? "https://" : "http://") + std::string(host);
}

Response noMemory() { return Response::error(503, "The service has too much to do."); }

}  // namespace

void HttpServer::Session::readHeader() {
    if (m_server.stopping) return;
    m_request = Request();
    m_isHead = false;
    m_parser.emplace();
    m_parser->header_limit(longestHeader);
    m_parser->body_limit(boost::none);
    m_idle = m_buffer.size() == 0;
    m_stream.expires_after(m_server.settings.idle);
    http::async_read_header(m_stream, m_buffer, *m_parser, bound(&Session::onHeader));
}

void HttpServer::Session::onHeader(ErrorCode error, std::size_t) {
    m_idle = false;
    if (error == http::error::end_of_stream || error == beast::error::timeout || error == net::error::operation_aborted) return;
    if (error.category() == http::make_error_code(http::error::bad_method).category()) {
        return refuse(Response::error(400, "This is no HTTP request."));
    }
    if (error) return;
    const auto& head = m_parser->get();
    m_request.method = head.method_string();
    m_request.target = head.target();
    m_request.authorization = head[http::field::authorization];
    m_request.contentType = head[http::field::content_type];
    m_request.origin = originOf(head);
    m_keepAlive = head.keep_alive();
    m_isHead = head.method() == http::verb::head;
    const auto length = m_parser->content_length();
    m_declared = length ? static_cast<std::size_t>(*length) : 0;
    m_request.length = m_declared;
    if (length) m_request.receiver = m_server.handler.receiver(m_request);
    if (m_request.receiver) return whenAllowed(&Session::receiveBody);
    if (m_declared <= admittedUnasked) return prepareBody();
    m_whenAdmitted = &Session::prepareBody;
    askForAdmission();
}

// A large body is read only for somebody who may send it.
void HttpServer::Session::askForAdmission() {
    inWorker([](Session& self) { return self.m_server.handler.admit(self.m_request, self.m_declared); },
             [](Session& self, std::optional<Response> refusal) {
                 if (refusal && refusal->postpone) return self.wait(*refusal->postpone, &Session::askForAdmission);
                 if (refusal) return self.refuse(*std::move(refusal));
                 (self.*self.m_whenAdmitted)();
             });
}

void HttpServer::Session::whenAllowed(void (Session::*read)()) {
    const bool hasBody = m_declared > 0 || m_parser->chunked();
    if (!hasBody || !beast::iequals(m_parser->get()[http::field::expect], "100-continue")) return (this->*read)();
    static constexpr std::string_view go = "HTTP/1.1 100 Continue\r\n\r\n";
    m_stream.expires_after(m_server.settings.patience);
    net::async_write(m_stream, net::buffer(go), [self = shared_from_this(), read](ErrorCode error, std::size_t) {
        if (!error) ((*self).*read)();
    });
}

bool HttpServer::Session::makeRoom(std::size_t size) {
    if (size > admittedUnasked) {
        if (size - m_reserved > m_server.memory) return false;
        m_server.memory -= size - m_reserved;
        m_reserved = size;
    }
    try {
        m_request.body.resize(size);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

void HttpServer::Session::prepareBody() {
    m_filled = 0;
    if (!makeRoom(m_parser->chunked() ? firstChunkedBuffer : m_declared)) return refuse(noMemory());
    whenAllowed(m_parser->chunked() ? &Session::readChunks : &Session::readBody);
}

// Bodies of known length go from the socket to their place.
void HttpServer::Session::readBody() {
    m_filled = net::buffer_copy(net::buffer(m_request.body.data(), m_request.body.size()), m_buffer.data());
    m_buffer.consume(m_filled);
    readMore();
}

void HttpServer::Session::readMore() {
    if (m_filled == m_request.body.size()) return handle();
    m_stream.expires_after(m_server.settings.patience);
    m_stream.async_read_some(net::buffer(m_request.body.data() + m_filled, m_request.body.size() - m_filled),
                             bound(&Session::onBytes));
}

void HttpServer::Session::onBytes(ErrorCode error, std::size_t bytes) {
    if (error) return;
    m_filled += bytes;
    readMore();
}

// Bodies in chunks go through the parser, into a buffer that grows.
void HttpServer::Session::readChunks() {
    auto& place = m_parser->get().body();
    place.data = m_request.body.data() + m_filled;
    place.size = m_request.body.size() - m_filled;
    place.more = true;
    m_place = place.size;
    m_stream.expires_after(m_server.settings.patience);
    http::async_read_some(m_stream, m_buffer, *m_parser, bound(&Session::onChunk));
}

void HttpServer::Session::onChunk(ErrorCode error, std::size_t) {
    if (error == http::error::need_buffer) error = {};
    if (error) return;
    m_filled += m_place - m_parser->get().body().size;
    const bool isWhole = m_parser->is_done();
    if (isWhole) m_request.body.resize(m_filled);
    if (!isWhole && m_filled < m_request.body.size()) return readChunks();
    if (isWhole && m_filled <= admittedUnasked) return handle();
    m_declared = m_filled;
    m_whenAdmitted = isWhole ? &Session::handle : &Session::growForChunks;
    askForAdmission();
}

void HttpServer::Session::growForChunks() {
    if (!makeRoom(m_request.body.size() * 2)) return refuse(noMemory());
    readChunks();
}

// A receiver's body: while it takes one piece, the next one comes in.
void HttpServer::Session::receiveBody() {
    m_left = m_request.length;
    const auto size = static_cast<std::size_t>(std::min(m_left, largestPiece));
    m_filling = Body(size);
    m_taking = Body(size);
    m_filled = net::buffer_copy(net::buffer(m_filling.data(), size), m_buffer.data());
    m_buffer.consume(m_filled);
    m_left -= m_filled;
    fill();
}

void HttpServer::Session::fill() {
    if (m_filled == m_filling.size() || m_left == 0) return offer();
    m_reading = true;
    m_stream.expires_after(m_server.settings.patience);
    const std::uint64_t room = std::min<std::uint64_t>(m_filling.size() - m_filled, m_left);
    m_stream.async_read_some(net::buffer(m_filling.data() + m_filled, static_cast<std::size_t>(room)), bound(&Session::onFilled));
}

void HttpServer::Session::onFilled(ErrorCode error, std::size_t bytes) {
    m_reading = false;
    if (m_refusal) return refuse(*std::exchange(m_refusal, std::nullopt));
    if (error) return;
    m_filled += bytes;
    m_left -= bytes;
    fill();
}

void HttpServer::Session::offer() {
    if (m_isTaking) return;
    if (m_filled == 0) return handle();
    std::swap(m_filling, m_taking);
    m_isTaking = true;
    const std::string_view piece = m_taking.view().substr(0, std::exchange(m_filled, 0));
    inWorker([piece](Session& self) { return self.m_request.receiver->take(piece); },
             [](Session& self, std::optional<Response> refusal) {
                 self.m_isTaking = false;
                 if (!refusal) {
                     if (!self.m_reading) self.fill();
                 } else if (self.m_reading) {
                     self.m_refusal = std::move(refusal);
                     self.m_stream.cancel();
                 } else {
                     self.refuse(*std::move(refusal));
                 }
             });
    fill();
}

void HttpServer::Session::dropRequest() {
    if (m_request.receiver) net::post(m_server.workers, [receiver = std::move(m_request.receiver)] {});
    m_request = Request();
    m_filling.clear();
    m_taking.clear();
    m_server.memory += std::exchange(m_reserved, 0);
}

}  // namespace velkor::service
