#include "service/HttpServer.h"

#include <sys/resource.h>

#include <csignal>

#include "PelmoLib/encodings/VLKLog.h"
#include "service/HttpSession.h"

namespace velkor::service {
namespace {

constexpr std::chrono::milliseconds acceptPause{100};

void prepareProcess() {
    // Sending a file to a client that has gone away would end the process.
    std::signal(SIGPIPE, SIG_IGN);
    // A connection takes one descriptor, and one more for each file that goes through it.
    rlimit descriptors{};
    if (::getrlimit(RLIMIT_NOFILE, &descriptors) != 0) return;
    descriptors.rlim_cur = descriptors.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &descriptors);
}

/// Runs the loop; false when something raised, which ends that connection and no other.
bool ranToEnd(net::io_context& io) {
    try {
        io.run();
        return true;
    } catch (const std::exception& failure) {
        VLKLog::sharedInstance().logMessageAtLevel(100, "A connection failed: %@", failure.what());
        return false;
    }
}

}  // namespace

void HttpServer::State::accept() {
    acceptor.async_accept([this](ErrorCode error, tcp::socket socket) {
        if (!acceptor.is_open()) return;
        if (error) return acceptLater();
        accept();
        if (sessions.size() < settings.connections) std::make_shared<Session>(*this, std::move(socket))->start();
    });
}

void HttpServer::State::acceptLater() {
    // Without a free descriptor the next attempt would fail at once as well.
    pause.expires_after(acceptPause);
    pause.async_wait([this](ErrorCode) {
        if (acceptor.is_open()) accept();
    });
}

void HttpServer::State::stop() {
    if (stopping) return;
    stopping = true;
    ErrorCode ignored;
    acceptor.close(ignored);
    signals.cancel(ignored);
    pause.cancel();
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
    prepareProcess();
    // Who knows that it listens may stop it.
    m_state->signals.add(SIGTERM);
    m_state->signals.add(SIGINT);
    return acceptor.local_endpoint().port();
}

void HttpServer::run() {
    auto& state = *m_state;
    state.signals.async_wait([&state](ErrorCode error, int) {
        if (!error) state.stop();
    });
    state.accept();
    while (!ranToEnd(state.io)) {
    }
    state.workers.join();
}

void HttpServer::stop() {
    net::post(m_state->io, [state = m_state.get()] { state->stop(); });
}

}  // namespace velkor::service
