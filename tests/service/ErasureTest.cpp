#include "service/Erasure.h"

#include "service/ClientInfo.h"
#include "service/SchemaEndpoint.h"
#include "tests/service/ServiceFixture.h"

namespace velkor::service {
namespace {

using Lines = std::vector<std::string>;

class ErasureTest : public ServiceFixture {
protected:
    static Response deleteData(TestClient& client, const std::string& app, const std::string& email = "u@example.org") {
        return client.send("DELETE", "/client_apps/" + app + "/users/" + email + "/delete_all_data.json");
    }
    /// How many rows the table has.
    std::int64_t rowsOf(const Sql& count) {
        return m_database->read([&](Connection& connection) {
            auto rows = connection.query(count);
            rows.next();
            return rows.integer(0);
        });
    }
};

TEST_F(ErasureTest, allDataOfOneAppGoAndMayComeAgain) {
    TestClient a = client("A"), other = client("A", "a/slashed/app"), b = client("B");
    a.cycle({insertOf("n1", "one"), insertOf("n2", "two")});
    a.cycle({deletionOf("n2")});
    other.cycle({insertOf("o1", "other's")});
    EXPECT_EQ(deleteData(a, "app", "somebody@example.org").status, 403);
    EXPECT_EQ(deleteData(a, "no app").status, 200);
    EXPECT_EQ(deleteData(a, "app").status, 200);
    EXPECT_EQ(summary(b.cycle()), Lines{}) << "no deletions are left either";
    EXPECT_EQ(b.highest, 3) << "numbers are never used twice";

    // A client that still has its objects is asked for them.
    a.lock();
    a.accept(a.changes({}));
    EXPECT_EQ(parsed(a.listing({"n1"}).body)["unknown_objects"], NS::Value(NS::Array{"n1"}));
    a.accept(a.changes({insertOf("n1", "again")}));
    a.unlock();
    EXPECT_EQ(summary(b.cycle()), Lines{"n1:again"});
    EXPECT_EQ(b.hash, a.hash);

    TestClient c = client("C", "a/slashed/app");
    EXPECT_EQ(summary(c.cycle()), Lines{"o1:other's"});
    EXPECT_EQ(deleteData(a, "a/slashed/app").status, 200);
    EXPECT_EQ(summary(client("D", "a/slashed/app").cycle()), Lines{});
}

TEST_F(ErasureTest, aDownloadUnderWayEndsWithTheData) {
    start({.page = 1});
    TestClient a = client("A"), b = client("B");
    a.cycle({insertOf("n1"), insertOf("n2")});
    b.lock();
    const auto identifier = parsed(b.changes({}).body)["batched_download_identifier"].stringOr("");
    EXPECT_EQ(deleteData(a, "app").status, 200);
    EXPECT_EQ(b.page(1, identifier).status, 409);
}

TEST_F(ErasureTest, aUserGoesWithEverything) {
    ASSERT_EQ(signUp("v@example.org", "secret").status, 200);
    TestClient a = client("A"), b = client("B"), v(exchange(), "v@example.org", "secret", "V");
    v.cycle({insertOf("v1", "stays")});
    a.cycle({insertOf("n1")});
    b.cycle({transaction("UPDATE_XACTION", "Notebook", "n1", "t", {{"notes", toMany("notes", "Note", {"x"})}})});
    a.lock();
    a.accept(a.changes({insertOf("n2")}));
    a.listing({"strange"});
    a.send("POST", "/clientinfo.json", "instance_id=A&client_info={}");
    a.rollback();
    EXPECT_EQ(a.send("DELETE", "/users/account.json").status, 200);
    EXPECT_EQ(a.lock().status, 401);
    static constexpr std::array counts{
        Sql{"SELECT COUNT(*) FROM rolled", ":i"},   Sql{"SELECT COUNT(*) FROM corrections", ":i"},
        Sql{"SELECT COUNT(*) FROM asked", ":i"},    Sql{"SELECT COUNT(*) FROM superseded", ":i"},
        Sql{"SELECT COUNT(*) FROM withheld", ":i"}, Sql{"SELECT COUNT(*) FROM undo WHERE guid <> 'v1'", ":i"},
        Sql{"SELECT COUNT(*) FROM clients", ":i"},  Sql{"SELECT COUNT(*) FROM relations", ":i"}};
    for (const Sql& count : counts) EXPECT_EQ(rowsOf(count), 0) << count.text;
    static constexpr std::array ones{Sql{"SELECT COUNT(*) FROM users", ":i"}, Sql{"SELECT COUNT(*) FROM partitions", ":i"},
                                     Sql{"SELECT COUNT(*) FROM objects", ":i"}, Sql{"SELECT COUNT(*) FROM locks", ":i"},
                                     Sql{"SELECT COUNT(*) FROM instances", ":i"}};
    for (const Sql& count : ones) EXPECT_EQ(rowsOf(count), 1) << count.text;

    // Whoever signs up with the address begins anew.
    ASSERT_EQ(signUp("u@example.org", "secret").status, 200);
    EXPECT_EQ(summary(a.cycle()), Lines{});
    EXPECT_EQ(a.highest, 0);
    EXPECT_GT(a.user(), v.user()) << "what caches still hold of the old user is never the new one's";
}

TEST_F(ErasureTest, aRequestBehindTheDeletionLeavesNothing) {
    TestClient a = client("A");
    ASSERT_EQ(a.lock().status, 200);
    const User user{a.user(), "u@example.org"};  // was let in
    deleteUser(*m_database, user);
    Locks locks(*m_database, 120);
    Directories directories;
    BlobEndpoints blobs(*m_database, locks, directories, *m_blobStore, Locks::systemMilliseconds);
    EXPECT_EQ(locks.lock(user, "app", "A").status, 401);
    EXPECT_EQ(takeSchema(*m_database, user, "app", "[]").status, 401);
    EXPECT_EQ(keepClient(*m_database, user, "instance_id=A&client_info={}", 0).status, 401);
    EXPECT_EQ(blobs.write({user, "app", "g1", "content", "http://service"}).status, 401);
    static constexpr std::array counts{Sql{"SELECT COUNT(*) FROM locks", ":i"}, Sql{"SELECT COUNT(*) FROM partitions", ":i"},
                                       Sql{"SELECT COUNT(*) FROM schemas", ":i"}, Sql{"SELECT COUNT(*) FROM clients", ":i"},
                                       Sql{"SELECT COUNT(*) FROM blobs", ":i"}};
    for (const Sql& count : counts) EXPECT_EQ(rowsOf(count), 0) << count.text;
}

TEST_F(ErasureTest, clientsRegisterThemselves) {
    TestClient a = client("A");
    auto keep = [&](const std::string& form) { return a.send("POST", "/clientinfo.json", form).status; };
    EXPECT_EQ(keep(R"(instance_id=A&client_info={"name":"a&b=c+%41 \u0000 ü"}&)"), 200);
    m_time += 1;
    EXPECT_EQ(keep(R"(instance_id=B&client_info={"name":"first"}&)"), 200);
    m_time += 1;
    EXPECT_EQ(keep(R"(instance_id=B&client_info={"name":"second"}&)"), 200);
    // What is read is more than what the answer may hold.
    EXPECT_EQ(keep("instance_id=C&client_info=\xEF\xBB\xBF{\"name\":\"a\nb\"}&"), 200);
    EXPECT_EQ(parsed(a.send("GET", "/clientinfo.json").body)["registered_clients"].asArray()->size(), 3u);
    EXPECT_EQ(a.send("GET", "/clientinfo.json").body.find_first_of("\xEF\n"), std::string::npos);
    m_database->write(a.user(), [](Connection& connection) {
        connection.runOnce("DELETE FROM clients WHERE instance = 'C'");
        return 0;
    });
    for (const char* form : {"", "instance_id=A", "instance_id=&client_info={}", "instance_id=A&client_info=[]",
                             "instance_id=A&client_info={", "instance_id=\xFF&client_info={}", "client_info={}"}) {
        EXPECT_EQ(keep(form), 400) << form;
    }
    EXPECT_EQ(a.send("GET", "/clientinfo.json").body,
              R"({"registered_clients":[{"instance_id":"B","client_info":{"name":"second"}},)"
              R"({"instance_id":"A","client_info":{"name":"a&b=c+%41 \u0000 ü"}}]})");
    for (int i = 0; i < 100; ++i, m_time += 1) EXPECT_EQ(keep("instance_id=more" + std::to_string(i) + "&client_info={}"), 200);
    const auto clients = parsed(a.send("GET", "/clientinfo.json").body);
    EXPECT_EQ(clients["registered_clients"].asArray()->size(), 100u);
}

}  // namespace
}  // namespace velkor::service
