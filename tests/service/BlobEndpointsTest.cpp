#include "service/BlobEndpoints.h"

#include <fstream>

#include "service/BlobRemoval.h"
#include "service/BlobSweeper.h"
#include "tests/service/BlobClient.h"

namespace velkor::service {
namespace {

class BlobEndpointsTest : public ServiceFixture {
protected:
    BlobCalls calls(const std::string& guid, const std::string& attribute = "content") {
        return {exchange(), missingCredentials, guid, attribute};
    }
    BlobCalls callsOfUser(const std::string& guid) { return {exchange(), basic("u@example.org", "secret"), guid}; }

    /// Posts the form in pieces of that size; the answer.
    Response post(const BlobForm& form, const std::string& content, std::size_t piece = 1000) {
        EXPECT_EQ(form.url, "http://service/blobs");
        return postBody(uploadBody(form.fields, content), piece);
    }
    Response postBody(const std::string& body, std::size_t piece = 1000, const std::string& type = formType) {
        Request request;
        request.method = "POST";
        request.target = "/blobs";
        request.contentType = type;
        request.length = body.size();
        request.receiver = m_router->receiver(request);
        for (std::size_t at = 0; at < body.size(); at += piece) {
            if (auto refusal = request.receiver->take(std::string_view(body).substr(at, piece))) return *std::move(refusal);
        }
        return m_router->handle(request);
    }
    Response send(const std::string& method, const std::string& url) {
        EXPECT_TRUE(url.starts_with("http://service/")) << url;
        return exchange()(method, url.substr(std::string("http://service").size()), "", "");
    }
    /// The content behind a URL; the status as text when it is refused.
    std::string get(const std::string& url) {
        const Response response = send("GET", url);
        if (response.status != 200) return std::to_string(response.status);
        EXPECT_TRUE(response.isBytes);
        if (!response.file) return response.body;
        std::string content(response.file->size, '\0');
        EXPECT_EQ(::pread(response.file->descriptor.number(), content.data(), content.size(), 0),
                  static_cast<ssize_t>(content.size()));
        return content;
    }
    /// The whole dialogue of an upload; the status of the confirmation.
    int upload(const BlobCalls& blob, const std::string& content) {
        EXPECT_EQ(post(blob.form(), content).status, 204);
        return blob.wrote(sha1HexHash(NS::Data(content))).status;
    }
    void sweep() {
        BlobSweeper(*m_database, *m_blobStore, [this] { return m_time.load(); }).sweep();
    }
    std::size_t filesInStore() const {
        std::size_t count = 0;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(m_directory / "blobs")) {
            count += entry.is_regular_file();
        }
        return count - 1;  // the key
    }
};

TEST_F(BlobEndpointsTest, aBlobGoesUpAndComesDown) {
    TestClient a = client("A");
    a.lock();
    a.changes({insertOf("g1")});
    const std::string content = std::string("\0\r\n--0xKhTmLbOuNdArY--\r\n", 25) + std::string(50'000, 'x') + "\r\n";
    EXPECT_EQ(get(callsOfUser("g1").url("read")), "");
    EXPECT_EQ(upload(calls("g1"), content), 200);
    EXPECT_EQ(get(callsOfUser("g1").url("read")), content);
    EXPECT_EQ(get(calls("g1").url("read")), content);
    EXPECT_EQ(get(calls("g1", "thumbnail").url("read")), "");
    // A blob without bytes is a blob; clients have no hash for what they do not have.
    EXPECT_EQ(upload(calls("g1", "thumbnail"), ""), 200);
    EXPECT_EQ(post(calls("g1").form(), "").status, 204);
    EXPECT_EQ(calls("g1").wrote("").status, 200);
    EXPECT_EQ(get(callsOfUser("g1").url("read")), "");
}

TEST_F(BlobEndpointsTest, partsOfAPushCarryBlobs) {
    TestClient a = client("A"), b = client("B");
    a.cycle();
    a.lock();
    a.changes({insertOf("g1")}, true);
    a.changes({insertOf("g2")}, true);
    EXPECT_EQ(calls("g1").call("write").status, 401) << "only the latest request's guids need no credentials";
    EXPECT_EQ(upload(calls("g2"), "two"), 200);
    EXPECT_EQ(post(callsOfUser("g1").form(), "one").status, 204);
    EXPECT_EQ(exchange()("POST", "/client_apps/app/blobs/g1/content/wrote.json", basic("u@example.org", "secret"),
                         "hash=" + sha1HexHash(NS::Data("one")) + "&")
                  .status,
              200);
    a.changes({});
    a.unlock();
    EXPECT_EQ(summary(b.cycle()), (std::vector<std::string>{"g2:", "g1:"})) << "what was settled has a new number";
    EXPECT_EQ(get(callsOfUser("g1").url("read")), "one");
    EXPECT_EQ(get(callsOfUser("g2").url("read")), "two");
}

TEST_F(BlobEndpointsTest, whatIsNotSignedForThisIsRefused) {
    TestClient a = client("A");
    a.lock();
    a.changes({insertOf("g1"), insertOf("g2")});
    ASSERT_EQ(upload(calls("g1"), "one"), 200);
    ASSERT_EQ(upload(calls("g2"), "two"), 200);

    auto with = [](BlobForm form, const std::string& name, const std::string& value) {
        for (auto& field : form.fields) {
            if (field.first == name) field.second = value;
        }
        return form;
    };
    const BlobForm form = calls("g1").form(), other = calls("g2").form();
    EXPECT_EQ(post(with(form, "signature", "FUXORS"), "x").status, 403);
    EXPECT_EQ(post(with(form, "key", other.fields[0].second), "x").status, 403);
    EXPECT_EQ(post(with(form, "expires", "99999999999"), "x").status, 403);
    EXPECT_EQ(post(BlobForm{form.url, {}}, "x").status, 403);
    EXPECT_EQ(post(form, std::string(100'001, 'x')).status, 413);
    EXPECT_EQ(postBody("no form").status, 400);
    EXPECT_EQ(postBody(uploadBody(form.fields, "x"), 1000, "text/plain").status, 400);
    EXPECT_EQ(postBody(uploadBody(form.fields, "x") + "more").status, 400);
    EXPECT_EQ(post(form, std::string(100'000, 'x')).status, 204);
    EXPECT_EQ(calls("g1").wrote(std::string(40, 'a')).status, 409);
    EXPECT_EQ(get(callsOfUser("g1").url("read")), "one");

    const std::string reading = callsOfUser("g1").url("read"), deleting = calls("g1").url("delete");
    EXPECT_EQ(send("DELETE", reading).status, 403);
    EXPECT_EQ(send("GET", deleting).status, 403);
    EXPECT_EQ(send("GET", reading + "0").status, 403);
    const std::string otherReading = callsOfUser("g2").url("read");
    const auto question = reading.find('?'), otherQuestion = otherReading.find('?');
    EXPECT_EQ(send("GET", otherReading.substr(0, otherQuestion) + reading.substr(question)).status, 403);
    EXPECT_EQ(send("GET", "http://service/blobs/").status, 403);
    EXPECT_EQ(get(reading), "one");
    m_time += 900'000;
    EXPECT_EQ(get(reading), "403");
    EXPECT_EQ(send("DELETE", deleting).status, 403);
    EXPECT_EQ(post(form, "x").status, 403);
}

TEST_F(BlobEndpointsTest, callsWithoutCredentialsNeedAHeldLockWhoseLatestBatchNamesTheGuid) {
    auto statusOf = [&](const std::string& guid, const std::string& call) { return calls(guid).call(call).status; };
    TestClient a = client("A");
    a.lock();
    EXPECT_EQ(statusOf("g1", "write"), 401);
    a.changes({insertOf("g1")});
    EXPECT_EQ(statusOf("g1", "write"), 200);
    EXPECT_EQ(statusOf("g1", "read"), 200);
    EXPECT_EQ(statusOf("g2", "write"), 401);
    EXPECT_EQ(BlobCalls(exchange(), "", "g1").call("write").status, 200);
    EXPECT_EQ(BlobCalls(exchange(), missingCredentials, "g1", "content", "other").call("write").status, 401);
    EXPECT_EQ(BlobCalls(exchange(), basic("u@example.org", "wrong"), "g1").call("write").status, 401);

    // A repeat names its guids again; the next request names others.
    a.changes({insertOf("g1")});
    EXPECT_EQ(statusOf("g1", "write"), 200);
    a.changes({insertOf("g2")});
    EXPECT_EQ(statusOf("g1", "write"), 401);
    EXPECT_EQ(statusOf("g2", "write"), 200);

    // Two users with the same guid: it could be either's.
    signUp("other@example.org", "secret");
    TestClient b(exchange(), "other@example.org", "secret", "B");
    b.lock();
    b.changes({insertOf("g2")});
    for (const char* call : {"read", "write", "wrote", "delete"}) EXPECT_EQ(statusOf("g2", call), 401) << call;
    b.unlock();
    EXPECT_EQ(statusOf("g2", "write"), 200);
    a.unlock();
    for (const char* call : {"read", "write", "wrote"}) EXPECT_EQ(statusOf("g2", call), 401) << call;
    // Under a new lock nothing is named yet.
    a.lock();
    EXPECT_EQ(statusOf("g2", "write"), 401);
}

TEST_F(BlobEndpointsTest, deletionWithoutCredentialsNeedsAGuidThatOneUserHas) {
    TestClient a = client("A");
    a.lock();
    a.changes({insertOf("g1")});
    ASSERT_EQ(upload(calls("g1"), "one"), 200);
    a.unlock();
    // Nobody has it: the URL is good and deletes nothing.
    EXPECT_EQ(send("DELETE", calls("nothing").url("delete")).status, 204);
    EXPECT_EQ(get(callsOfUser("g1").url("read")), "one");

    signUp("other@example.org", "secret");
    TestClient b(exchange(), "other@example.org", "secret", "B");
    b.cycle({insertOf("g1")});
    EXPECT_EQ(calls("g1").call("delete").status, 401);
    b.cycle({deletionOf("g1")});
    const std::string url = calls("g1").url("delete");
    EXPECT_EQ(send("DELETE", url).status, 204);
    EXPECT_EQ(send("DELETE", calls("g1").url("delete")).status, 204);
    EXPECT_EQ(get(callsOfUser("g1").url("read")), "");
    EXPECT_EQ(filesInStore(), 0u);
}

TEST_F(BlobEndpointsTest, anotherHashGivesTheTransactionANewNumber) {
    TestClient a = client("A"), b = client("B");
    a.lock();
    a.accept(a.changes({insertOf("g1", "one")}));
    ASSERT_EQ(upload(calls("g1"), "first"), 200);  // provisional: everybody still gets the number
    a.unlock();
    EXPECT_EQ(summary(b.cycle()), std::vector<std::string>{"g1:one"});
    EXPECT_EQ(b.highest, 1);

    // The same again: the repeat of a request whose answer was lost, and the same blob.
    a.lock();
    a.highest = 0;
    a.accept(a.changes({insertOf("g1", "one")}));
    ASSERT_EQ(upload(calls("g1"), "first"), 200);
    a.unlock();
    EXPECT_TRUE(b.cycle().empty());

    // Another blob under the old transaction.
    a.lock();
    a.highest = 0;
    a.changes({insertOf("g1", "one")});
    ASSERT_EQ(upload(calls("g1"), "second"), 200);
    EXPECT_EQ(calls("g1").wrote(sha1HexHash(NS::Data("second"))).status, 200);  // the answer was lost
    a.unlock();
    EXPECT_EQ(summary(b.cycle()), std::vector<std::string>{"g1:one"});
    EXPECT_EQ(b.highest, 2);
    EXPECT_TRUE(b.cycle().empty());
    EXPECT_TRUE(a.cycle().empty());

    // With credentials nobody knows from which installation it comes: everybody fetches it.
    ASSERT_EQ(post(callsOfUser("g1").form(), "third").status, 204);
    a.lock();
    a.highest = 0;
    a.changes({insertOf("g1", "one")});
    ASSERT_EQ(calls("g1").wrote(sha1HexHash(NS::Data("third"))).status, 200);
    a.unlock();
    EXPECT_EQ(summary(b.cycle()), std::vector<std::string>{"g1:one"});
    EXPECT_EQ(get(callsOfUser("g1").url("read")), "third");
}

TEST_F(BlobEndpointsTest, movingABlobKeepsTheLock) {
    start({.leaseSeconds = 100});
    TestClient a = client("A"), b = client("B");
    auto begin = [&] {
        a.unlock();
        ASSERT_EQ(a.lock().status, 200);
        a.changes({insertOf("g" + std::to_string(m_time), "x")});
    };
    auto blob = [&] { return calls("g" + std::to_string(m_time)); };

    begin();
    const BlobCalls slow = blob();
    ASSERT_EQ(slow.call("write").status, 200);
    m_time += 799'000;  // eight leases
    EXPECT_EQ(b.lock().status, 409);
    m_time += 1'000;
    EXPECT_EQ(b.lock().status, 200);
    b.unlock();

    begin();
    const BlobCalls quick = blob();
    ASSERT_EQ(upload(quick, "content"), 200);  // it is over
    m_time += 107'000;
    EXPECT_EQ(b.lock().status, 200);
    b.unlock();

    begin();
    ASSERT_EQ(callsOfUser("g1").call("read").status, 200);
    m_time += 50'000;
    a.changes({});  // a sign of life ends the transfer
    m_time += 107'000;
    EXPECT_EQ(b.lock().status, 200);
    b.unlock();

    start({.leaseSeconds = 1000});
    begin();
    ASSERT_EQ(callsOfUser("g1").call("read").status, 200);
    m_time += 899'000;
    EXPECT_EQ(b.lock().status, 409);
    m_time += 200'000;
    EXPECT_EQ(b.lock().status, 200);
}

TEST_F(BlobEndpointsTest, whatIsNotNeededLeavesTheStore) {
    TestClient a = client("A");
    a.lock();
    a.changes({insertOf("g1"), insertOf("g2"), insertOf("g3")});
    ASSERT_EQ(upload(calls("g1"), "old"), 200);
    ASSERT_EQ(upload(calls("g1"), "new"), 200);
    ASSERT_EQ(upload(calls("g2"), "kept"), 200);
    ASSERT_EQ(post(calls("g3").form(), "never confirmed").status, 204);
    const std::string reading = callsOfUser("g1").url("read");
    sweep();
    EXPECT_EQ(filesInStore(), 4u);
    m_time += 1'800'000;
    sweep();
    EXPECT_EQ(filesInStore(), 3u);
    m_time += 86'400'000;
    sweep();
    EXPECT_EQ(filesInStore(), 2u);
    EXPECT_EQ(get(callsOfUser("g1").url("read")), "new");

    const auto partition = [&](Connection& connection) { return Partition::find(connection, a.user(), "app")->id; };
    const BlobForm late = callsOfUser("g2").form();
    m_database->write(a.user(), [&](Connection& connection) {
        removeBlobsOfPartition(connection, partition(connection));
        return 0;
    });
    sweep();
    EXPECT_EQ(filesInStore(), 0u);
    EXPECT_EQ(post(late, "too late").status, 403);
    EXPECT_EQ(callsOfUser("g2").wrote("").status, 401);
    EXPECT_EQ(get(callsOfUser("g2").url("read")), "");
}

TEST_F(BlobEndpointsTest, whatASlowUploadLeavesBehindGoesAsWell) {
    TestClient a = client("A");
    a.lock();
    a.changes({insertOf("g1")});
    const std::string name = calls("g1").form().fields[0].second;
    calls("g1").call("delete");
    m_time += 1'800'000;
    sweep();
    // The last byte came after the store was asked whether the blob is wanted.
    auto files = BlobDirectory::open(m_directory / "blobs");
    ASSERT_TRUE(files);
    files.value()->add(name)->publish();
    sweep();
    EXPECT_EQ(filesInStore(), 1u);
    m_time += 86'400'000;
    sweep();
    EXPECT_EQ(filesInStore(), 0u);
}

TEST_F(BlobEndpointsTest, aBlobThatCannotBeRemovedKeepsNoOther) {
    TestClient a = client("A");
    a.lock();
    std::vector<std::string> files;
    for (const std::string guid : {"g1", "g2", "g3"}) {
        a.changes({insertOf(guid)});
        ASSERT_EQ(upload(calls(guid), guid), 200);
        calls(guid).call("delete");
    }
    for (const auto& entry : std::filesystem::recursive_directory_iterator(m_directory / "blobs")) {
        if (entry.is_regular_file() && entry.path().filename() != "signing-key") files.push_back(entry.path());
    }
    ASSERT_EQ(files.size(), 3u);
    // Not to be removed by anybody: a directory of the file's name, with something in it.
    std::filesystem::remove(files[0]);
    std::filesystem::create_directories(files[0] + "/in the way");
    m_time += 1'800'000;
    sweep();
    EXPECT_EQ(filesInStore(), 0u);
    EXPECT_TRUE(std::filesystem::exists(files[0]));
    std::filesystem::remove_all(files[0]);
    m_time += 300'000;
    sweep();
}

TEST_F(BlobEndpointsTest, theStoreComesBackAsItWas) {
    TestClient a = client("A");
    a.lock();
    a.changes({insertOf("g1"), insertOf("g2")});
    ASSERT_EQ(upload(calls("g1"), "content"), 200);
    const std::string url = callsOfUser("g1").url("read");
    const std::string root = m_directory / "blobs";
    {
        // One that is being received stays, what a dead process left goes.
        auto files = BlobDirectory::open(root);
        ASSERT_TRUE(files);
        const auto coming = files.value()->add("00000000-0000-4000-8000-000000000000");
        coming->write("half");
        std::ofstream(root + "/incoming/abandoned") << "half";
        EXPECT_EQ(filesInStore(), 3u);
        start();
        EXPECT_EQ(filesInStore(), 2u);
        EXPECT_EQ(coming->publish(), sha1HexHash(NS::Data("half")));
    }
    EXPECT_EQ(get(url), "content");
    using std::filesystem::perms;
    EXPECT_EQ(std::filesystem::status(root + "/signing-key").permissions(), perms::owner_read | perms::owner_write);
    EXPECT_EQ(std::filesystem::status(root).permissions(), perms::owner_all);
    // Without the key the store cannot be what it was.
    std::ofstream(root + "/signing-key") << "short";
    EXPECT_FALSE(DiskBlobStore::open(root, {}));
}

}  // namespace
}  // namespace velkor::service
