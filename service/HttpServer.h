#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "platform/base/Result.h"
#include "service/HttpMessage.h"

namespace velkor::service {

/// Speaks HTTP/1.1 on one address: one thread for all connections, a pool of threads for the handler.
class HttpServer {
public:
    struct Settings {
        std::string host = "127.0.0.1";
        std::uint16_t port = 0;  // 0 takes a free one
        std::size_t workers = 8;
        std::size_t connections = 2048;                 // at most at one time
        std::uint64_t bodies = std::uint64_t(4) << 30;  // bytes of large bodies in memory, of all connections together
        std::chrono::seconds idle{75};                  // between two requests of a connection
        std::chrono::seconds patience{60};              // within a request, without a byte
        std::chrono::seconds stopping{30};              // for the requests in hand when stopped
    };

    /// The handler lives longer.
    HttpServer(HttpHandler& handler, const Settings& settings);
    ~HttpServer();

    /// Takes the address; the port that it got. From then on SIGTERM and SIGINT end the server, not the process.
    NS::Result<std::uint16_t> listen();
    /// Serves until `stop`, or SIGTERM or SIGINT, and until the requests in hand are answered.
    void run();
    /// Any thread.
    void stop();

private:
    class Session;
    struct State;
    std::unique_ptr<State> m_state;
};

}  // namespace velkor::service
