// The inside of HttpServer.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <memory>
#include <optional>
#include <set>

#include "service/HttpServer.h"

namespace velkor::service {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = net::ip::tcp;
using ErrorCode = boost::system::error_code;

inline constexpr std::size_t admittedUnasked = 64 << 10;  // bodies up to this size are read before anybody is asked

/// What all connections share. The loop's thread.
struct HttpServer::State {
    State(HttpHandler& h, const Settings& s)
        : handler(h), settings(s), acceptor(io), signals(io), pause(io), cut(io), workers(s.workers), memory(s.bodies) {}

    void accept();
    void acceptLater();
    void stop();

    HttpHandler& handler;
    const Settings settings;
    net::io_context io{1};
    tcp::acceptor acceptor;
    net::signal_set signals;
    net::steady_timer pause, cut;
    net::thread_pool workers;
    std::set<Session*> sessions;
    std::uint64_t memory;  // that is left for large bodies
    bool stopping = false;
};

/// One connection. It lives as long as one of its operations is under way. The loop's thread, but for the handler's calls.
class HttpServer::Session : public std::enable_shared_from_this<Session> {
public:
    Session(HttpServer::State& server, tcp::socket socket);
    ~Session();

    void start();
    /// Ends the connection if no request is in hand.
    void endIfIdle();
    void cut();

private:
    using Parser = http::request_parser<http::buffer_body>;

    // HttpSession+Intake.cpp: a request comes in.
    void readHeader();
    void onHeader(ErrorCode error, std::size_t bytes);
    /// Asks whether a body of `m_declared` bytes may come; then goes on with `m_whenAdmitted`.
    void askForAdmission();
    /// Goes on once a client that waits for leave to send the body has got that.
    void whenAllowed(void (Session::*read)());
    /// Makes the request's body that large; false when there is no memory for it.
    bool makeRoom(std::size_t size);
    void prepareBody();
    void readBody();
    void readMore();
    void onBytes(ErrorCode error, std::size_t bytes);
    void readChunks();
    void growForChunks();
    void onChunk(ErrorCode error, std::size_t bytes);
    void receiveBody();
    void fill();
    void onFilled(ErrorCode error, std::size_t bytes);
    /// Hands the piece to the receiver, unless that is still busy with the one before.
    void offer();
    /// Forgets the request. What its receiver took may take time to throw away.
    void dropRequest();

    // HttpSession.cpp: it is answered.
    void handle();
    void wait(std::chrono::milliseconds time, void (Session::*then)());
    /// Answers a request whose body is still on its way.
    void refuse(Response response);
    void write(Response response);
    void onAnswered();
    void sendFile();
    void sendMore();
    void onSent(ssize_t sent);
    /// Reads what the client still sends, so that it can read the answer.
    void drain();
    void drainMore();
    void onDrained(ErrorCode error, std::size_t bytes);

    auto bound(void (Session::*step)(ErrorCode, std::size_t)) {
        return [self = shared_from_this(), step](ErrorCode error, std::size_t bytes) { ((*self).*step)(error, bytes); };
    }

    /// Calls the function in the pool and then, in the loop, `done` with its result. The loop lives at least that long.
    template <class F, class D>
    void inWorker(F function, D done) {
        net::post(m_server.workers,
                  [self = shared_from_this(), work = net::make_work_guard(m_server.io), function, done]() mutable {
                      auto result = function(*self);
                      // Nothing of the session stays with the worker: it ends in the loop's thread.
                      auto& io = self->m_server.io;
                      net::post(io, [self = std::move(self), work = std::move(work), result = std::move(result), done]() mutable {
                          done(*self, std::move(result));
                      });
                  });
    }

    HttpServer::State& m_server;
    beast::tcp_stream m_stream;
    beast::flat_buffer m_buffer;
    net::steady_timer m_timer;
    std::optional<Parser> m_parser;
    std::optional<http::response<http::string_body>> m_answer;
    Request m_request;
    std::size_t m_declared = 0;  // size of the body as far as it is known
    void (Session::*m_whenAdmitted)() = nullptr;
    std::size_t m_reserved = 0;  // of the memory for large bodies
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
    bool m_isHead = false;  // the answer has no body
    bool m_drain = false;
};

}  // namespace velkor::service
