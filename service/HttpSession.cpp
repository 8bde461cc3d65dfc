#include "service/HttpSession.h"

#include <sys/sendfile.h>

#include <algorithm>
#include <boost/asio/write.hpp>

namespace velkor::service {
namespace {

constexpr std::size_t bytesPerSecond = 64 << 10;           // a slower reader of an answer is cut off
constexpr std::size_t mostDrained = std::size_t(1) << 26;  // of a body that nobody wants
constexpr std::chrono::seconds draining{5};
constexpr std::uint64_t sentAtOnce = 4 << 20;  // of a file, while the socket takes it

}  // namespace

HttpServer::Session::Session(HttpServer::State& server, tcp::socket socket)
    : m_server(server), m_stream(std::move(socket)), m_timer(server.io) {
    m_server.sessions.insert(this);
}

HttpServer::Session::~Session() {
    m_server.sessions.erase(this);
    if (m_server.stopping && m_server.sessions.empty()) m_server.cut.cancel();
    dropRequest();
}

void HttpServer::Session::start() {
    ErrorCode ignored;
    m_stream.socket().set_option(tcp::no_delay(true), ignored);
    readHeader();
}

void HttpServer::Session::endIfIdle() {
    if (m_idle) m_stream.close();
}

void HttpServer::Session::cut() {
    // A worker that sends a file knows the socket by its number, which must stay this session's.
    if (!m_sending) return m_stream.close();
    ErrorCode ignored;
    m_stream.socket().shutdown(tcp::socket::shutdown_both, ignored);
}

void HttpServer::Session::handle() {
    m_stream.expires_never();
    inWorker([](Session& self) { return self.m_server.handler.handle(self.m_request); },
             [](Session& self, Response response) {
                 if (response.postpone) return self.wait(*response.postpone, &Session::handle);
                 self.write(std::move(response));
             });
}

void HttpServer::Session::wait(std::chrono::milliseconds time, void (Session::*then)()) {
    m_request.postponed = true;
    m_stream.expires_never();
    m_timer.expires_after(time);
    m_timer.async_wait([self = shared_from_this(), then](ErrorCode error) {
        if (!error) ((*self).*then)();
    });
}

void HttpServer::Session::refuse(Response response) {
    response.close = true;
    m_drain = true;
    write(std::move(response));
}

void HttpServer::Session::write(Response response) {
    dropRequest();
    m_close = response.close || !m_keepAlive || m_server.stopping;
    m_file = std::move(response.file);
    auto& out = m_answer.emplace();
    out.version(11);
    out.result(static_cast<unsigned>(response.status));
    if (response.status != 204)
        out.set(http::field::content_type, response.isBytes ? "application/octet-stream" : "application/json");
    out.keep_alive(!m_close);
    if (response.status == 401) out.set(http::field::www_authenticate, "Basic realm=\"velkord\", charset=\"UTF-8\"");
    out.body() = std::move(response.body);
    out.prepare_payload();
    if (m_file) out.content_length(m_file->size);
    if (response.status == 204) out.erase(http::field::content_length);
    if (m_isHead) {
        m_file.reset();
        out.body().clear();
    }
    m_stream.expires_after(m_server.settings.patience + std::chrono::seconds(out.body().size() / bytesPerSecond));
    http::async_write(m_stream, out, [self = shared_from_this()](ErrorCode error, std::size_t) {
        self->m_answer.reset();
        if (error) return;
        if (self->m_file) return self->sendFile();
        self->onAnswered();
    });
}

void HttpServer::Session::onAnswered() {
    if (!m_close) return readHeader();
    ErrorCode ignored;
    m_stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
    if (m_drain) drain();
}

// A file goes from the disk to the socket inside the kernel; a worker waits for the disk, the loop for the socket.
void HttpServer::Session::sendFile() {
    m_sent = 0;
    ErrorCode error;
    m_stream.socket().native_non_blocking(true, error);
    if (error) return m_stream.close();  // it was cut in the meantime
    sendMore();
}

void HttpServer::Session::sendMore() {
    if (m_sent == m_file->size) {
        m_file.reset();
        return onAnswered();
    }
    m_sending = true;
    inWorker(
        [socket = m_stream.socket().native_handle()](Session& self) {
            off64_t from = static_cast<off64_t>(self.m_sent);
            const std::uint64_t size = std::min(self.m_file->size - self.m_sent, sentAtOnce);
            const ssize_t sent = ::sendfile64(socket, self.m_file->descriptor.number(), &from, static_cast<std::size_t>(size));
            return sent < 0 ? -errno : sent;
        },
        [](Session& self, ssize_t sent) { self.onSent(sent); });
}

void HttpServer::Session::onSent(ssize_t sent) {
    m_sending = false;
    // A file that is shorter than it was ends the connection: the client sees that something is missing.
    if (sent == 0 || (sent < 0 && sent != -EAGAIN && sent != -EINTR)) return m_stream.close();
    if (sent > 0) m_sent += static_cast<std::uint64_t>(sent);
    if (sent != -EAGAIN) return sendMore();
    m_timer.expires_after(m_server.settings.patience);
    m_timer.async_wait([self = shared_from_this()](ErrorCode error) {
        // The socket may have become ready in the same moment, and a worker may be using it.
        if (!error && !self->m_sending) self->m_stream.close();
    });
    m_stream.socket().async_wait(tcp::socket::wait_write, [self = shared_from_this()](ErrorCode error) {
        self->m_timer.cancel();
        if (!error) self->sendMore();
    });
}

void HttpServer::Session::drain() {
    m_idle = true;
    m_stream.expires_after(draining);
    m_request.body = Body(admittedUnasked);
    m_filled = 0;
    drainMore();
}

void HttpServer::Session::drainMore() {
    m_stream.async_read_some(net::buffer(m_request.body.data(), m_request.body.size()), bound(&Session::onDrained));
}

void HttpServer::Session::onDrained(ErrorCode error, std::size_t bytes) {
    m_filled += bytes;
    if (!error && m_filled < mostDrained) drainMore();
}

}  // namespace velkor::service
