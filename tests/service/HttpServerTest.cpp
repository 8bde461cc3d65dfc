// The server alone, with a handler of the test's own.
#include "service/HttpServer.h"

#include <new>
#include <thread>

#include "tests/service/VelkordProgram.h"

namespace velkor::service {
namespace {

using namespace std::chrono_literals;

class HttpServerTest : public testing::Test, public HttpHandler {
protected:
    std::shared_ptr<BodyReceiver> receiver(const Request& head) override {
        if (head.target == "/no-memory") throw std::bad_alloc();
        return nullptr;
    }
    std::optional<Response> admit(Request& head, std::size_t size) override {
        if (size > 250'000) return Response::error(413, "too large");
        if (head.postponed || head.target != "/later") return std::nullopt;
        Response later;
        later.postpone = 1ms;
        return later;
    }
    Response handle(Request& request) override { return Response::json("{" + std::to_string(request.body.size()) + "}"); }

    void serve(HttpServer::Settings settings = {}) {
        VLKLog::sharedInstance().setLogLevel(0);
        m_server = std::make_unique<HttpServer>(*this, settings);
        const auto port = m_server->listen();
        ASSERT_TRUE(port);
        m_port = port.value();
        m_thread = std::jthread([this] { m_server->run(); });
    }
    void TearDown() override {
        if (!m_thread.joinable()) return;
        m_server->stop();
        m_thread.join();
    }

    static std::string post(const std::string& target, const std::string& headers) {
        return "POST " + target + " HTTP/1.1\r\nHost: x\r\n" + headers + "\r\n\r\n";
    }
    /// The answer to a body in chunks of that size.
    std::string answerToChunks(const std::string& target, std::size_t size, std::size_t chunk) {
        RawConnection connection(m_port);
        connection.send(post(target, "Transfer-Encoding: chunked"));
        char line[32];
        for (std::size_t at = 0; at < size; at += chunk) {
            const std::size_t part = std::min(chunk, size - at);
            std::snprintf(line, sizeof line, "%zx\r\n", part);
            connection.send(line + std::string(part, 'x') + "\r\n");
        }
        connection.send("0\r\n\r\n");
        const std::string answer = connection.readUntil("}");
        return answer.substr(answer.find("\r\n\r\n") + 4);
    }

    std::unique_ptr<HttpServer> m_server;
    int m_port = 0;
    std::jthread m_thread;
};

TEST_F(HttpServerTest, bodiesInChunksAreAdmittedLikeOthers) {
    serve();
    struct Case {
        const char* target;
        std::size_t size, chunk;
        std::string answer;
    };
    const std::string tooLarge = R"({"error":"too large"})";
    for (const auto& [target, size, chunk, answer] :
         {Case{"/", 0, 1, "{0}"}, Case{"/", 65'536, 60'000, "{65536}"}, Case{"/", 250'000, 65'536, "{250000}"},
          Case{"/", 250'001, 65'536, tooLarge}, Case{"/", 300'000, 1'000, tooLarge},
          Case{"/later", 200'000, 10'000, "{200000}"}}) {
        EXPECT_EQ(answerToChunks(target, size, chunk), answer) << target << ' ' << size;
    }
}

TEST_F(HttpServerTest, largeBodiesShareTheMemory) {
    serve({.bodies = 150'000});
    const std::string large = post("/", "Expect: 100-continue\r\nContent-Length: 100000");
    RawConnection first(m_port), second(m_port), small(m_port);
    first.send(large);
    first.readUntil("100 Continue\r\n\r\n");  // it has the memory now
    second.send(large);
    EXPECT_TRUE(second.readUntil("}").starts_with("HTTP/1.1 503"));
    EXPECT_NE(answerToChunks("/", 200'000, 10'000).find("error"), std::string::npos);
    small.send(post("/", "Content-Length: 5") + "hello");
    EXPECT_NE(small.readUntil("}").find("{5}"), std::string::npos);
    for (int i = 0; i < 2; ++i) {
        if (i > 0) first.send(post("/", "Content-Length: 100000"));
        first.send(std::string(100'000, 'x'));
        EXPECT_NE(first.readUntil("}").find("{100000}"), std::string::npos);
    }
}

TEST_F(HttpServerTest, aConnectionThatFailsHarmsNoOther) {
    serve();
    RawConnection failing(m_port), other(m_port);
    failing.send(post("/no-memory", "Content-Length: 5"));
    EXPECT_EQ(failing.readToEnd(), "");
    other.send(post("/", "Content-Length: 5") + "hello");
    EXPECT_NE(other.readUntil("}").find("{5}"), std::string::npos);
}

}  // namespace
}  // namespace velkor::service
