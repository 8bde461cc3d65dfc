// The real program on a real socket.
#include <array>
#include <atomic>
#include <csignal>
#include <fstream>
#include <thread>

#include "tests/service/Eventually.h"
#include "tests/service/VelkordProgram.h"

namespace velkor::service {
namespace {

class ServerTest : public testing::Test {
protected:
    static void SetUpTestSuite() { curl_global_init(CURL_GLOBAL_ALL); }

    static void signUp(const Program& program) {
        const NS::Dictionary user{{"email", "u@example.org"}, {"password", "secret"}, {"password_confirmation", "secret"}};
        ASSERT_EQ(program.exchange()("POST", "/users.json", "", jsonText({{"user", user}})).status, 200);
    }
    static TestClient client(const Program& program, const std::string& instance, const std::string& app = "app") {
        return TestClient(program.exchange(), "u@example.org", "secret", instance, app);
    }

    test::TemporaryDirectory m_directory;
    TestDatabase m_place{m_directory.path()};
};

TEST_F(ServerTest, everyAnsweredRequestSurvivesAKill) {
    for (int round = 0; round < 3; ++round) {
        Program program(m_place);
        if (round == 0) signUp(program);
        // Requests are under way when the kill comes; what was answered must be there afterwards.
        std::atomic<int> answered = 0;
        std::thread writer([&] {
            TestClient a = client(program, "A");
            if (a.lock().status != 200) return;
            for (int i = 0;; ++i) {
                const Response response = a.changes({insertOf("r" + std::to_string(round) + "-" + std::to_string(i))});
                if (response.status != 200) return;
                answered = i + 1;
                a.highest = *parsed(response.body)["HIGHEST_XACTION"].asInteger();
            }
        });
        EXPECT_TRUE(eventually([&] { return answered >= 5 + round; }));
        EXPECT_EQ(program.end(SIGKILL), -1);
        writer.join();

        Program again(m_place);
        TestClient a = client(again, "A"), b = client(again, "B" + std::to_string(round));
        EXPECT_EQ(b.lock().status, 409);  // the lock survives as well
        a.lock();
        a.unlock();
        int found = 0;
        for (const auto& line : summary(b.cycle())) found += line.starts_with("r" + std::to_string(round) + "-");
        EXPECT_GE(found, answered);
        EXPECT_LE(found, answered + 1);
    }
}

TEST_F(ServerTest, usersAndInstancesAtTheSameTime) {
    Program program(m_place, {"--page", "50"});
    // Two processes on one database, where that is possible.
    std::unique_ptr<Program> other = test::isOnPostgreSQL() ? std::make_unique<Program>(m_place) : nullptr;
    constexpr int users = 4, rounds = 15;
    std::vector<std::thread> threads;
    std::array<std::array<std::string, 2>, users> hashes;
    for (int user = 0; user < users; ++user) {
        const std::string email = "u" + std::to_string(user) + "@example.org";
        const NS::Dictionary account{{"email", email}, {"password", "secret"}};
        ASSERT_EQ(program.exchange()("POST", "/users.json", "", jsonText({{"user", account}})).status, 200);
        for (int side = 0; side < 2; ++side) {
            threads.emplace_back([&, user, side, email] {
                const Program& server = side == 1 && other ? *other : program;
                TestClient one(server.exchange(), email, "secret", side == 0 ? "A" : "B");
                for (int i = 0; i < rounds; ++i) {
                    EXPECT_TRUE(eventually([&] { return one.lock().status == 200; }));
                    std::vector<NS::Dictionary> edits;
                    for (int k = 0; k < 20; ++k) {
                        edits.push_back(
                            insertOf(email + std::to_string(side) + "-" + std::to_string(i) + "-" + std::to_string(k)));
                    }
                    one.accept(one.changes(edits));
                    one.unlock();
                }
            });
        }
    }
    for (auto& thread : threads) thread.join();
    for (int user = 0; user < users; ++user) {
        TestClient reader(program.exchange(), "u" + std::to_string(user) + "@example.org", "secret", "R");
        EXPECT_EQ(reader.cycle().size(), static_cast<std::size_t>(2 * rounds * 20));
        EXPECT_EQ(reader.highest, 2 * rounds * 20);
    }
}

TEST_F(ServerTest, stopsAfterTheRequestsInHand) {
    Program program(m_place);
    signUp(program);
    TestClient a = client(program, "A");
    a.lock();
    const std::string body = jsonText(a.envelope({insertOf("n1")}));
    RawConnection idle(program.port()), busy(program.port());
    idle.send("GET /transactions/verify.json HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_NE(idle.readUntil("}").find("401"), std::string::npos);
    busy.send("POST /users/1/transactions.json HTTP/1.1\r\nHost: x\r\nAuthorization: " + basic("u@example.org", "secret") +
              "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body.substr(0, 10));
    // The program has the first part of the request when a second connection of later date is answered.
    EXPECT_EQ(program.exchange()("GET", "/nowhere", "", "").status, 404);
    std::thread stopper([&] { EXPECT_EQ(program.end(SIGTERM), 0); });
    EXPECT_EQ(idle.readToEnd(), "");  // idle connections end at once
    busy.send(body.substr(10));
    const std::string answer = busy.readToEnd();
    EXPECT_TRUE(answer.starts_with("HTTP/1.1 200 OK")) << answer;
    EXPECT_NE(answer.find("Connection: close"), answer.npos);
    stopper.join();
    Program again(m_place);
    TestClient b = client(again, "A");
    EXPECT_EQ(b.lock().status, 200);
}

TEST_F(ServerTest, speaksHttpAsClientsDo) {
    Program program(m_place, {"--max-body", "1000000"});
    signUp(program);
    const std::string head = " HTTP/1.1\r\nHost: x\r\nAuthorization: " + basic("u@example.org", "secret") + "\r\n";
    TestClient a = client(program, "A");
    a.lock();
    const std::string body = jsonText(a.envelope({insertOf("n1", std::string(50, 'x'))}));

    // Two requests in one packet, the first with a body that nobody asked for.
    RawConnection pipelined(program.port());
    pipelined.send("GET /transactions/verify.json" + head + "Content-Length: 5\r\n\r\nhelloGET /nowhere" + head + "\r\n");
    const std::string two = pipelined.readUntil("nothing here");
    EXPECT_NE(two.find("user_id"), two.npos);
    EXPECT_NE(two.find("404"), two.npos);

    // A body in chunks.
    RawConnection chunked(program.port());
    chunked.send("POST /users/1/transactions.json" + head + "Transfer-Encoding: chunked\r\n\r\n");
    for (std::size_t at = 0; at < body.size(); at += 100) {
        const std::string part = body.substr(at, 100);
        char size[16];
        std::snprintf(size, sizeof size, "%zx\r\n", part.size());
        chunked.send(size + part + "\r\n");
    }
    chunked.send("0\r\n\r\n");
    EXPECT_NE(chunked.readUntil("}").find("\"HIGHEST_XACTION\":1"), std::string::npos);

    // The same for a call whose body is always small.
    RawConnection signingUp(program.port());
    signingUp.send("POST /users.json HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n2\r\n{}\r\n0\r\n\r\n");
    EXPECT_TRUE(signingUp.readUntil("}").starts_with("HTTP/1.1 400"));

    // The answer to HEAD has no body: the next one begins right behind it.
    RawConnection heads(program.port());
    heads.send("HEAD /nowhere" + head + "\r\nGET /nowhere" + head + "\r\n");
    const std::string answers = heads.readUntil("}");
    EXPECT_EQ(answers.find("\r\n\r\nHTTP/1.1 404"), answers.rfind("HTTP/1.1 404") - 4) << answers;

    // Whoever waits for leave to send gets it, or the refusal.
    RawConnection waitingForLittle(program.port());
    waitingForLittle.send("POST /users.json HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\nContent-Length: 2\r\n\r\n");
    EXPECT_TRUE(waitingForLittle.readUntil("\r\n\r\n").starts_with("HTTP/1.1 100 Continue"));
    waitingForLittle.send("{}");
    EXPECT_TRUE(waitingForLittle.readUntil("}").starts_with("HTTP/1.1 400"));
    RawConnection waiting(program.port());
    waiting.send("POST /users/1/transactions.json" + head + "Expect: 100-continue\r\nContent-Length: 100000\r\n\r\n");
    EXPECT_TRUE(waiting.readUntil("\r\n\r\n").starts_with("HTTP/1.1 100 Continue"));
    waiting.send(std::string(100'000, ' '));
    EXPECT_TRUE(waiting.readUntil("}").starts_with("HTTP/1.1 400"));
    RawConnection large(program.port());
    large.send("POST /users/1/transactions.json" + head + "Content-Length: 100000000\r\n\r\n");
    EXPECT_TRUE(large.readUntil("}").starts_with("HTTP/1.1 413"));
    RawConnection stranger(program.port());
    stranger.send("POST /users/1/transactions.json HTTP/1.1\r\nHost: x\r\nContent-Length: 500000\r\n\r\n");
    EXPECT_TRUE(stranger.readUntil("}").starts_with("HTTP/1.1 401"));
    RawConnection endless(program.port());
    endless.send("POST /users/1/transactions.json" + head + "Transfer-Encoding: chunked\r\n\r\n");
    std::string chunk = "10000\r\n" + std::string(65536, 'x') + "\r\n";
    for (int i = 0; i < 18; ++i) endless.send(chunk);
    EXPECT_TRUE(endless.readUntil("}").starts_with("HTTP/1.1 413"));

    // What is no HTTP.
    RawConnection garbage(program.port());
    garbage.send("\x16\x03\x01 nonsense\r\n\r\n");
    EXPECT_TRUE(garbage.readToEnd().starts_with("HTTP/1.1 400"));
    EXPECT_EQ(program.end(SIGINT), 0);
}

TEST_F(ServerTest, expiresWhileItRuns) {
    Program program(m_place);
    signUp(program);
    TestClient a = client(program, "A");
    a.cycle({insertOf("n1", "one"), insertOf("n2", "two")});
    const std::string before = a.hash;
    auto expire = [&](const std::string& guid) {
        std::vector<std::string> words{velkord(), "expire", "--user", "u@example.org", "--app", "app", "--guid", guid};
        for (const auto& word : m_place.options()) words.push_back(word);
        return Program::run(words);
    };
    EXPECT_EQ(expire("n1"), 0);
    EXPECT_EQ(expire("n1"), 1);
    EXPECT_EQ(expire("nothing"), 1);
    EXPECT_EQ(Program::run({velkord(), "--nonsense"}), 2);
    const std::string mistyped = m_directory / "mistyped";
    EXPECT_EQ(Program::run({velkord(), "reset-password", "--user", "u@example.org", "--data", mistyped}), 1);
    EXPECT_FALSE(std::filesystem::exists(mistyped));
    EXPECT_EQ(summary(a.cycle()), std::vector<std::string>{"n1:expired"});
    EXPECT_NE(a.hash, before);
    a.cycle({transaction("UPDATE_XACTION", "Note", "n1", "back")});
    EXPECT_EQ(a.hash, before);
}

}  // namespace
}  // namespace velkor::service
