// Blobs through the real program on a real socket.
#include <csignal>
#include <thread>

#include "tests/service/BlobClient.h"
#include "tests/service/Eventually.h"
#include "tests/service/VelkordProgram.h"

namespace velkor::service {
namespace {

class BlobTransferTest : public testing::Test {
protected:
    static void SetUpTestSuite() { curl_global_init(CURL_GLOBAL_ALL); }

    void SetUp() override { start(); }
    void start(const std::vector<std::string>& options = {}) {
        m_program.reset();
        m_program = std::make_unique<Program>(m_database, options);
    }
    /// Signs up, and names the guids under the lock.
    void begin(const std::vector<std::string>& guids) {
        const NS::Dictionary user{{"email", "u@example.org"}, {"password", "secret"}};
        m_program->exchange()("POST", "/users.json", "", jsonText({{"user", user}}));
        TestClient a(m_program->exchange(), "u@example.org", "secret", "A");
        ASSERT_EQ(a.lock().status, 200);
        std::vector<NS::Dictionary> inserts;
        for (const auto& guid : guids) inserts.push_back(insertOf(guid));
        ASSERT_EQ(a.changes(inserts).status, 200);
    }
    BlobCalls calls(const std::string& guid) const { return {m_program->exchange(), missingCredentials, guid}; }
    std::size_t filesIn(const std::string& directory) const {
        std::size_t count = 0;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(m_data + "/blobs/" + directory)) {
            count += entry.is_regular_file();
        }
        return count;
    }
    static std::string contentOf(std::size_t size, unsigned seed) {
        std::string content(size, '\0');
        for (char& c : content) c = static_cast<char>((seed = seed * 1664525 + 1013904223) >> 24);
        return content;
    }

    test::TemporaryDirectory m_directory;
    const std::string m_data = m_directory / "data";
    TestDatabase m_database{m_data};
    std::unique_ptr<Program> m_program;
    HttpClient m_client;
};

TEST_F(BlobTransferTest, blobsOfAllSizesSurviveAKill) {
    const std::vector<std::size_t> sizes{0, 1, 10'000, 524'288, 524'289, 3 << 20, 20 << 20};
    std::vector<std::string> guids;
    for (const auto size : sizes) guids.push_back("g" + std::to_string(size));
    begin(guids);
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        const std::string content = contentOf(sizes[i], 1);
        ASSERT_EQ(m_client.post(calls(guids[i]).form(), content), 204) << sizes[i];
        EXPECT_EQ(m_client.keptConnection(), i > 0);
        EXPECT_EQ(calls(guids[i]).wrote(sha1HexHash(NS::Data(content))).status, 200);
    }
    m_program->end(SIGKILL);
    start();
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        const HttpClient::Answer got = m_client.send("GET", calls(guids[i]).url("read"));
        EXPECT_EQ(got.status, 200);
        EXPECT_TRUE(got.body == contentOf(sizes[i], 1)) << sizes[i];
        EXPECT_EQ(m_client.keptConnection(), i > 0);
    }
    EXPECT_EQ(m_client.send("DELETE", calls("g1").url("delete")).status, 204);
    EXPECT_TRUE(m_client.keptConnection());
    EXPECT_EQ(m_client.send("GET", calls("g1").url("read")).body, "");
    EXPECT_EQ(m_program->end(SIGTERM), 0);
}

TEST_F(BlobTransferTest, refusalsComeWhileTheBodyIsOnItsWay) {
    start({"--max-blob", "1000000"});
    begin({"g1"});
    BlobForm wrong = calls("g1").form();
    wrong.fields.back().second = "FUXORS";
    EXPECT_EQ(m_client.post(wrong, contentOf(20 << 20, 1)), 403);
    EXPECT_EQ(m_client.post(calls("g1").form(), contentOf(1'000'001, 1)), 413);
    EXPECT_EQ(m_client.post(calls("g1").form(), contentOf(1'000'000, 1)), 204);
    EXPECT_EQ(m_client.send("POST", wrong.url, contentOf(5 << 20, 1), "text/plain").status, 400);
    EXPECT_EQ(filesIn("incoming"), 0u);

    RawConnection chunked(m_program->port());
    chunked.send("POST /blobs HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n");
    EXPECT_TRUE(chunked.readUntil("}").starts_with("HTTP/1.1 411"));
    RawConnection hostless(m_program->port());
    hostless.send("GET /client_apps/app/blobs/g1/content/read.json HTTP/1.1\r\n\r\n");
    EXPECT_TRUE(hostless.readUntil("}").starts_with("HTTP/1.1 400"));
    RawConnection proxied(m_program->port());
    proxied.send(
        "GET /client_apps/app/blobs/g1/content/read.json HTTP/1.1\r\nHost: sync.example.org:8443\r\n"
        "X-Forwarded-Proto: https\r\n\r\n");
    EXPECT_NE(proxied.readUntil("}").find("https://sync.example.org:8443/blobs/"), std::string::npos);
}

TEST_F(BlobTransferTest, clientsThatGoAwayDoNoHarm) {
    begin({"g1", "g2"});
    const std::string content = contentOf(20 << 20, 1);
    ASSERT_EQ(m_client.post(calls("g1").form(), content), 204);
    ASSERT_EQ(calls("g1").wrote(sha1HexHash(NS::Data(content))).status, 200);
    const std::string body = uploadBody(calls("g2").form().fields, content);
    {
        RawConnection upload(m_program->port());
        upload.send("POST /blobs HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\nContent-Type: " + std::string(formType) +
                    "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n");
        EXPECT_TRUE(upload.readUntil("\r\n\r\n").starts_with("HTTP/1.1 100"));
        upload.send(body.substr(0, 2 << 20));
        EXPECT_TRUE(eventually([&] { return filesIn("incoming") > 0; }));
        const std::string url = calls("g1").url("read");
        RawConnection download(m_program->port());
        download.send("GET " + url.substr(url.find("/blobs/")) + " HTTP/1.1\r\nHost: x\r\n\r\n");
        EXPECT_TRUE(download.readUntil("\r\n\r\n").starts_with("HTTP/1.1 200"));
    }
    EXPECT_TRUE(eventually([&] { return filesIn("incoming") == 0; }));
    EXPECT_TRUE(m_client.send("GET", calls("g1").url("read")).body == content);
    EXPECT_EQ(m_program->end(SIGTERM), 0);
}

TEST_F(BlobTransferTest, manyAtTheSameTime) {
    constexpr int count = 8;
    std::vector<std::string> guids;
    for (int i = 0; i < count; ++i) guids.push_back("g" + std::to_string(i));
    begin(guids);
    std::vector<std::thread> threads;
    std::array<bool, count> isRight{};
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&, i] {
            HttpClient client;
            const std::string content = contentOf(2 << 20, static_cast<unsigned>(i));
            const BlobCalls blob = calls(guids[static_cast<std::size_t>(i)]);
            if (client.post(blob.form(), content) != 204) return;
            if (blob.wrote(sha1HexHash(NS::Data(content))).status != 200) return;
            isRight[static_cast<std::size_t>(i)] = client.send("GET", blob.url("read")).body == content;
        });
    }
    for (auto& thread : threads) thread.join();
    for (int i = 0; i < count; ++i) EXPECT_TRUE(isRight[static_cast<std::size_t>(i)]) << i;
}

}  // namespace
}  // namespace velkor::service
