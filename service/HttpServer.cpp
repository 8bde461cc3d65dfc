#include "service/HttpServer.h"

#include <sys/sendfile.h>

#include <algorithm>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <cctype>
#include <csignal>
#include <set>

#include "PelmoLib/encodings/VLKLog.h"

namespace velkor::service {
namespace {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = net::ip::tcp;
using ErrorCode = boost::system::error_code;

constexpr std::size_t admittedUnasked = 64 << 10;  // bodies up to this size are read before anybody is asked
constexpr std::uint32_t longestHeader = 32 << 10;
constexpr std::size_t bytesPerSecond = 64 << 10;           // a slower reader of an answer is cut off
constexpr std::size_t mostDrained = std::size_t(1) << 26;  // of a body that nobody wants
constexpr std::chrono::seconds draining{5};
constexpr std::size_t firstChunkedBuffer = 64 << 10;
constexpr std::uint64_t largestPiece = 512 << 10;  // of a body that a receiver takes; two are in memory
constexpr std::uint64_t sentAtOnce = 4 << 20;      // of a file, while the socket takes it

/// Scheme and host by which the client reached the service, also through a proxy; empty for a host that is none.
std::string originOf(const http::request_header<>& head) {
    const auto host = head[http::field::host];
    const bool isHost = !host.empty() && host.size() <= 255 && std::all_of(host.begin(), host.end(), [](unsigned char c) {
        return std::isalnum(c) || c == '.' || c == '-' || c == ':' || c == '[' || c == ']' || c == '_';
    });
    if (!isHost) return {};
    return (head["X-Forwarded-Proto"] == "https" ? "https://" : "http://") + std::string(host);
}

}  // namespace

struct HttpServer::State {
    State(HttpHandler& h, const Settings& s) : handler(h), settings(s), acceptor(io), signals(io), cut(io), workers(s.workers) {}

    void accept();
    void stop();

    HttpHandler& handler;
    const Settings settings;
    net::io_context io{1};
    tcp::acceptor acceptor;
    net::signal_set signals;
    net::steady_timer cut;
    net::thread_pool workers;
    std::set<Session*> sessions;  // the loop's thread only
    bool stopping = false;
};

/// One connection. It lives as long as one of its operations is under way. The loop's thread, but for the handler's calls.
class HttpServer::Session : public std::enable_shared_from_this<Session> {
public:
    Session(HttpServer::State& server, tcp::socket socket) : m_server(server), m_stream(std::move(socket)), m_timer(server.io) {
        m_server.sessions.insert(this);
    }
    ~Session() {
        m_server.sessions.erase(this);
        if (m_server.stopping && m_server.sessions.empty()) m_server.cut.cancel();
        dropRequest();
    }

    void start() {
        m_stream.socket().set_option(tcp::no_delay(true));
        readHeader();
    }
    /// Ends the connection if no request is in hand.
    void endIfIdle() {
        if (m_idle) m_stream.close();
    }
    void cut() {
        // A worker that sends a file knows the socket by its number, which must stay this session's.
        if (!m_sending) return m_stream.close();
        ErrorCode ignored;
        m_stream.socket().shutdown(tcp::socket::shutdown_both, ignored);
    }

private:
    using Parser = http::request_parser<http::buffer_body>;

    auto bound(void (Session::*step)(ErrorCode, std::size_t)) {
        return [self = shared_from_this(), step](ErrorCode error, std::size_t bytes) { ((*self).*step)(error, bytes); };
    }

    void readHeader() {
        if (m_server.stopping) return;
        m_request = Request();
        m_parser.emplace();
        m_parser->header_limit(longestHeader);
        m_parser->body_limit(boost::none);
        m_idle = m_buffer.size() == 0;
        m_stream.expires_after(m_server.settings.idle);
        http::async_read_header(m_stream, m_buffer, *m_parser, bound(&Session::onHeader));
    }

    void onHeader(ErrorCode error, std::size_t) {
        m_idle = false;
        if (error == http::error::end_of_stream || error == beast::error::timeout || error == net::error::operation_aborted)
            return;
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
        const auto length = m_parser->content_length();
        const std::size_t size = length ? static_cast<std::size_t>(*length) : 0;
        m_request.length = size;
        if (length) m_request.receiver = m_server.handler.receiver(m_request);
        if (m_request.receiver) return whenAllowed(&Session::receiveBody);
        if (!m_parser->chunked() && size <= admittedUnasked) return readBody(size);
        m_declared = m_parser->chunked() ? admittedUnasked + 1 : size;
        askForAdmission();
    }

    /// A large body is read only for somebody who may send it.
    void askForAdmission() {
        inWorker([self = shared_from_this()] { return self->m_server.handler.admit(self->m_request, self->m_declared); },
                 [](Session& self, std::optional<Response> refusal) {
                     if (refusal && refusal->postpone) return self.wait(*refusal->postpone, &Session::askForAdmission);
                     if (refusal) return self.refuse(*std::move(refusal));
                     self.whenAllowed(&Session::readAdmittedBody);
                 });
    }

    /// Reads the body, once a client that waits for leave to send it has got that.
    void whenAllowed(void (Session::*read)()) {
        if (beast::iequals(m_parser->get()[http::field::expect], "100-continue")) {
            static constexpr std::string_view go = "HTTP/1.1 100 Continue\r\n\r\n";
            m_stream.expires_after(m_server.settings.patience);
            net::async_write(m_stream, net::buffer(go), [self = shared_from_this(), read](ErrorCode error, std::size_t) {
                if (!error) ((*self).*read)();
            });
            return;
        }
        (this->*read)();
    }

    void readAdmittedBody() {
        if (m_parser->chunked()) {
            m_request.body = Body(firstChunkedBuffer);
            m_filled = 0;
            return readChunks();
        }
        readBody(m_declared);
    }

    // Bodies of known length go from the socket to their place.
    void readBody(std::size_t size) {
        m_request.body = Body(size);
        m_filled = net::buffer_copy(net::buffer(m_request.body.data(), size), m_buffer.data());
        m_buffer.consume(m_filled);
        readMore();
    }

    void readMore() {
        if (m_filled == m_request.body.size()) return handle();
        m_stream.expires_after(m_server.settings.patience);
        m_stream.async_read_some(net::buffer(m_request.body.data() + m_filled, m_request.body.size() - m_filled),
                                 bound(&Session::onBytes));
    }

    void onBytes(ErrorCode error, std::size_t bytes) {
        if (error) return;
        m_filled += bytes;
        readMore();
    }

    // Bodies in chunks go through the parser, into a buffer that grows.
    void readChunks() {
        if (m_filled == m_request.body.size()) {
            Body larger(m_request.body.size() * 2);
            m_request.body.view().copy(larger.data(), m_filled);
            m_request.body = std::move(larger);
        }
        auto& place = m_parser->get().body();
        place.data = m_request.body.data() + m_filled;
        place.size = m_request.body.size() - m_filled;
        place.more = true;
        m_place = place.size;
        m_stream.expires_after(m_server.settings.patience);
        http::async_read_some(m_stream, m_buffer, *m_parser, bound(&Session::onChunk));
    }

    void onChunk(ErrorCode error, std::size_t) {
        if (error == http::error::need_buffer) error = {};
        if (error) return;
        m_filled += m_place - m_parser->get().body().size;
        if (m_parser->is_done()) {
            Body whole(m_request.body.view().substr(0, m_filled));
            m_request.body = std::move(whole);
            return handle();
        }
        if (m_filled > m_declared) {
            m_declared = m_filled * 2;
            return inWorker([self = shared_from_this()] { return self->m_server.handler.admit(self->m_request, self->m_filled); },
                            [](Session& self, std::optional<Response> refusal) {
                                if (refusal) return self.refuse(*std::move(refusal));
                                self.readChunks();
                            });
        }
        readChunks();
    }

    // A receiver's body: while it takes one piece, the next one comes in.
    void receiveBody() {
        m_left = m_request.length;
        const auto size = static_cast<std::size_t>(std::min(m_left, largestPiece));
        m_filling = Body(size);
        m_taking = Body(size);
        m_filled = net::buffer_copy(net::buffer(m_filling.data(), size), m_buffer.data());
        m_buffer.consume(m_filled);
        m_left -= m_filled;
        fill();
    }

    void fill() {
        if (m_filled == m_filling.size() || m_left == 0) return offer();
        m_reading = true;
        m_stream.expires_after(m_server.settings.patience);
        const std::uint64_t room = std::min<std::uint64_t>(m_filling.size() - m_filled, m_left);
        m_stream.async_read_some(net::buffer(m_filling.data() + m_filled, static_cast<std::size_t>(room)),
                                 bound(&Session::onFilled));
    }

    void onFilled(ErrorCode error, std::size_t bytes) {
        m_reading = false;
        if (m_refusal) return refuse(*std::exchange(m_refusal, std::nullopt));
        if (error) return;
        m_filled += bytes;
        m_left -= bytes;
        fill();
    }

    /// Hands the piece to the receiver, unless that is still busy with the one before.
    void offer() {
        if (m_isTaking) return;
        if (m_filled == 0) return handle();
        std::swap(m_filling, m_taking);
        m_isTaking = true;
        const std::string_view piece = m_taking.view().substr(0, std::exchange(m_filled, 0));
        inWorker([self = shared_from_this(), piece] { return self->m_request.receiver->take(piece); },
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

    /// Forgets the request. What its receiver took may take time to throw away.
    void dropRequest() {
        if (m_request.receiver) net::post(m_server.workers, [receiver = std::move(m_request.receiver)] {});
        m_request = Request();
        m_filling.clear();
        m_taking.clear();
    }

    void handle() {
        m_stream.expires_never();
        inWorker([self = shared_from_this()] { return self->m_server.handler.handle(self->m_request); },
                 [](Session& self, Response response) {
                     if (response.postpone) return self.wait(*response.postpone, &Session::handle);
                     self.write(std::move(response));
                 });
    }

    /// Calls the function in the pool and then, in the loop, `done` with its result. The loop lives at least that long.
    template <class F, class D>
    void inWorker(F&& function, D&& done) {
        auto guard =
            std::make_shared<net::executor_work_guard<net::io_context::executor_type>>(net::make_work_guard(m_server.io));
        net::post(m_server.workers, [self = shared_from_this(), guard, function = std::forward<F>(function), done]() mutable {
            auto result = function();
            net::post(self->m_server.io,
                      [self, guard, result = std::move(result), done]() mutable { done(*self, std::move(result)); });
        });
    }

    void wait(std::chrono::milliseconds time, void (Session::*then)()) {
        m_request.postponed = true;
        m_stream.expires_never();
        m_timer.expires_after(time);
        m_timer.async_wait([self = shared_from_this(), then](ErrorCode error) {
            if (!error) ((*self).*then)();
        });
    }

    /// Answers a request whose body is still on its way.
    void refuse(Response response) {
        response.close = true;
        m_drain = true;
        write(std::move(response));
    }

    void write(Response response) {
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
        m_stream.expires_after(m_server.settings.patience + std::chrono::seconds(out.body().size() / bytesPerSecond));
        http::async_write(m_stream, out, [self = shared_from_this()](ErrorCode error, std::size_t) {
            self->m_answer.reset();
            if (error) return;
            if (self->m_file) return self->sendFile();
            self->onAnswered();
        });
    }

    void onAnswered() {
        if (!m_close) return readHeader();
        ErrorCode ignored;
        m_stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
        if (m_drain) drain();
    }

    // A file goes from the disk to the socket inside the kernel; a worker waits for the disk, the loop for the socket.
    void sendFile() {
        m_sent = 0;
        m_stream.socket().native_non_blocking(true);
        sendMore();
    }

    void sendMore() {
        if (m_sent == m_file->size) {
            m_file.reset();
            return onAnswered();
        }
        m_sending = true;
        inWorker(
            [self = shared_from_this(), socket = m_stream.socket().native_handle()] {
                off64_t from = static_cast<off64_t>(self->m_sent);
                const std::uint64_t size = std::min(self->m_file->size - self->m_sent, sentAtOnce);
                const ssize_t sent =
                    ::sendfile64(socket, self->m_file->descriptor.number(), &from, static_cast<std::size_t>(size));
                return sent < 0 ? -errno : sent;
            },
            [](Session& self, ssize_t sent) { self.onSent(sent); });
    }

    void onSent(ssize_t sent) {
        m_sending = false;
        // A file that is shorter than it was ends the connection: the client sees that something is missing.
        if (sent == 0 || (sent < 0 && sent != -EAGAIN && sent != -EINTR)) return m_stream.close();
        if (sent > 0) m_sent += static_cast<std::uint64_t>(sent);
        if (sent != -EAGAIN) return sendMore();
        m_timer.expires_after(m_server.settings.patience);
        m_timer.async_wait([self = shared_from_this()](ErrorCode error) {
            if (!error) self->m_stream.close();
        });
        m_stream.socket().async_wait(tcp::socket::wait_write, [self = shared_from_this()](ErrorCode error) {
            self->m_timer.cancel();
            if (!error) self->sendMore();
        });
    }

    /// Reads what the client still sends, so that it can read the answer.
    void drain() {
        m_idle = true;
        m_stream.expires_after(draining);
        m_request.body = Body(admittedUnasked);
        m_filled = 0;
        drainMore();
    }

    void drainMore() {
        m_stream.async_read_some(net::buffer(m_request.body.data(), m_request.body.size()), bound(&Session::onDrained));
    }

    void onDrained(ErrorCode error, std::size_t bytes) {
        m_filled += bytes;
        if (!error && m_filled < mostDrained) drainMore();
    }

    HttpServer::State& m_server;
    beast::tcp_stream m_stream;
    beast::flat_buffer m_buffer;
    net::steady_timer m_timer;
    std::optional<Parser> m_parser;
    std::optional<http::response<http::string_body>> m_answer;
    Request m_request;
    std::size_t m_declared = 0;  // size for which the body was admitted
    std::size_t m_filled = 0;    // bytes of the body that are there
    std::size_t m_place = 0;     // room that the parser was given
    Body m_filling, m_taking;    // of a receiver's body: what is read into, what is taken from
    std::uint64_t m_left = 0;    // bytes of it that are still to be read
    std::optional<Response> m_refusal;
    std::shared_ptr<const BodyFile> m_file;
    std::uint64_t m_sent = 0;  // bytes of the file
    bool m_reading = false;    // a receiver's body is coming in
    bool m_isTaking = false;   // the receiver is busy with a piece of it
    bool m_sending = false;    // a worker sends the file
    bool m_close = false;      // ends the connection after the answer
    bool m_idle = false;       // waits for a request
    bool m_keepAlive = false;
    bool m_drain = false;
};

void HttpServer::State::accept() {
    acceptor.async_accept([this](ErrorCode error, tcp::socket socket) {
        if (!acceptor.is_open()) return;
        if (!error && sessions.size() < settings.connections) std::make_shared<Session>(*this, std::move(socket))->start();
        accept();
    });
}

void HttpServer::State::stop() {
    if (stopping) return;
    stopping = true;
    ErrorCode ignored;
    acceptor.close(ignored);
    signals.cancel(ignored);
    for (Session* session : std::set(sessions)) session->endIfIdle();
    if (sessions.empty()) return;
    cut.expires_after(settings.stopping);
    cut.async_wait([this](ErrorCode error) {
        if (error) return;
        for (Session* session : std::set(sessions)) session->cut();
    });
}

HttpServer::HttpServer(HttpHandler& handler, const Settings& settings) : m_state(std::make_unique<State>(handler, settings)) {}
HttpServer::~HttpServer() = default;

NS::Result<std::uint16_t> HttpServer::listen() {
    auto& acceptor = m_state->acceptor;
    ErrorCode error;
    const auto address =
        net::ip::make_address(m_state->settings.host == "localhost" ? "127.0.0.1" : m_state->settings.host, error);
    const tcp::endpoint endpoint(address, m_state->settings.port);
    if (!error) acceptor.open(endpoint.protocol(), error);
    if (!error) acceptor.set_option(net::socket_base::reuse_address(true), error);
    if (!error) acceptor.bind(endpoint, error);
    if (!error) acceptor.listen(net::socket_base::max_listen_connections, error);
    if (error) {
        return NS::Error::withDescription(NS::PlatformErrorDomain, error.value(), "cannot listen there: " + error.message());
    }
    return acceptor.local_endpoint().port();
}

void HttpServer::run() {
    auto& state = *m_state;
    // Sending a file to a client that has gone away would end the process.
    std::signal(SIGPIPE, SIG_IGN);
    state.signals.add(SIGTERM);
    state.signals.add(SIGINT);
    state.signals.async_wait([&state](ErrorCode error, int) {
        if (!error) state.stop();
    });
    state.accept();
    state.io.run();
    state.workers.join();
}

void HttpServer::stop() {
    net::post(m_state->io, [state = m_state.get()] { state->stop(); });
}

}  // namespace velkor::service
