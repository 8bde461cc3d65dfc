#include "service/HttpServer.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
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
    }

    void start() {
        m_stream.socket().set_option(tcp::no_delay(true));
        readHeader();
    }
    /// Ends the connection if no request is in hand.
    void endIfIdle() {
        if (m_idle) m_stream.close();
    }
    void cut() { m_stream.close(); }

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
        m_keepAlive = head.keep_alive();
        const auto length = m_parser->content_length();
        const std::size_t size = length ? static_cast<std::size_t>(*length) : 0;
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
                     self.readLargeBody();
                 });
    }

    void readLargeBody() {
        if (beast::iequals(m_parser->get()[http::field::expect], "100-continue")) {
            static constexpr std::string_view go = "HTTP/1.1 100 Continue\r\n\r\n";
            m_stream.expires_after(m_server.settings.patience);
            net::async_write(m_stream, net::buffer(go), [self = shared_from_this()](ErrorCode error, std::size_t) {
                if (!error) self->readAdmittedBody();
            });
            return;
        }
        readAdmittedBody();
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
        m_request = Request();
        const bool close = response.close || !m_keepAlive || m_server.stopping;
        auto& out = m_answer.emplace();
        out.version(11);
        out.result(static_cast<unsigned>(response.status));
        out.set(http::field::content_type, "application/json");
        out.keep_alive(!close);
        if (response.status == 401) out.set(http::field::www_authenticate, "Basic realm=\"velkord\", charset=\"UTF-8\"");
        out.body() = std::move(response.body);
        out.prepare_payload();
        m_stream.expires_after(m_server.settings.patience + std::chrono::seconds(out.body().size() / bytesPerSecond));
        http::async_write(m_stream, out, [self = shared_from_this(), close](ErrorCode error, std::size_t) {
            self->m_answer.reset();
            if (error) return;
            if (!close) return self->readHeader();
            ErrorCode ignored;
            self->m_stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
            if (self->m_drain) self->drain();
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
    bool m_idle = false;         // waits for a request
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
