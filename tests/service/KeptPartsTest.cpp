#include "service/KeptParts.h"

#include "service/Expiry.h"
#include "tests/service/ServiceFixture.h"

namespace velkor::service {
namespace {

using Lines = std::vector<std::string>;

NS::Dictionary update(const std::string& guid, const std::string& title) {
    return transaction("UPDATE_XACTION", "Note", guid, title);
}

class KeptPartsTest : public ServiceFixture {
protected:
    std::int64_t keptBytes(TestClient& a, const std::string& app) {
        return m_database->read([&](Connection& connection) { return Partition::find(connection, a.user(), app)->keptParts; });
    }
};

TEST_F(KeptPartsTest, whoeverAsksFindsWhatTheyBrought) {
    struct Case {
        const char* what;
        std::function<void(TestClient& a, const std::string& app)> event;
        Lines expected;
    };
    const Lines all{"n2:two", "n1:uno", "n3:three"};
    const std::vector<Case> cases{
        {"the last part", [](TestClient& a, const std::string&) { a.changes({}); }, all},
        {"a part that repeats", [](TestClient& a, const std::string&) { a.changes({insertOf("n3", "three")}, true); }, all},
        {"a restart", [&](TestClient&, const std::string&) { start(); }, all},
        {"the end of the lock", [](TestClient& a, const std::string&) { a.unlock(); }, all},
        {"a rollback", [](TestClient& a, const std::string&) { a.rollback(); }, {"n1:one", "n2:two"}},
        {"a rollback after a restart", [&](TestClient& a, const std::string&) { start(), a.rollback(); }, {"n1:one", "n2:two"}},
        {"a rollback of the next part",
         [](TestClient& a, const std::string&) { a.changes({insertOf("n4", "four")}, true), a.rollback(); }, all},
        {"a rollback of the last part", [](TestClient& a, const std::string&) { a.changes({deletionOf("n1")}), a.rollback(); },
         all},
        {"an expiry",
         [&](TestClient&, const std::string& app) { ASSERT_TRUE(expire(*m_database, "u@example.org", app, "n2")); },
         {"n1:uno", "n3:three", "n2:expired"}},
        {"a listing",
         [&](TestClient& a, const std::string& app) {
             EXPECT_EQ(a.listing({"n1", "n2", "n3"}).status, 200);
             const auto last = m_database->read([&](Connection& connection) {
                 return Instance::find(connection, Partition::find(connection, a.user(), app)->id, "A")->lastNumber;
             });
             EXPECT_EQ(last, 4) << "who writes next must know that somebody has written";
         },
         all},
        {"their erasure",
         [](TestClient& a, const std::string& app) {
             EXPECT_EQ(a.send("DELETE", "/client_apps/" + app + "/users/u%40example.org/delete_all_data.json").status, 200);
         },
         {}},
    };
    int number = 0;
    for (const auto& [what, event, expected] : cases) {
        SCOPED_TRACE(what);
        const std::string app = "app" + std::to_string(++number);
        TestClient a = client("A", app), reader = client("R", app);
        a.cycle();  // only of an instance that is known anything is kept
        a.lock();
        a.changes({insertOf("n1", "one")}, true);
        a.changes({insertOf("n2", "two")}, true);
        a.changes({update("n1", "uno"), insertOf("n3", "three")}, true);
        EXPECT_GT(keptBytes(a, app), 0);
        event(a, app);
        a.unlock();
        EXPECT_EQ(summary(reader.cycle()), expected);
        EXPECT_EQ(keptBytes(a, app), 0);
    }
}

TEST_F(KeptPartsTest, theirPayloadsShareTheBytesThatTheyMayInflateTo) {
    TestClient a = client("A");
    a.cycle();
    a.lock();
    for (const std::string number : {"1", "2"}) {
        auto member = insertOf("n" + number);
        member.set("xaction_object",
                   packed({{"attributes", NS::Dictionary{{"text", std::string(40 << 20, ' ')}}},
                           {"relationships", NS::Dictionary{{"tags", toMany("tags", "Tag", {"t" + number})}}}}));
        EXPECT_EQ(a.changes({member}, true).status, 200);
    }
    a.changes({});
    constexpr Sql find{"SELECT id FROM objects WHERE guid = :guid", "t:i"};
    const auto isKnown = [&](const std::string& guid) {
        return m_database->read([&](Connection& connection) { return connection.query(find, guid).next(); });
    };
    EXPECT_TRUE(isKnown("n1") && isKnown("n2"));
    EXPECT_TRUE(isKnown("t1"));
    EXPECT_FALSE(isKnown("t2"));
}

}  // namespace
}  // namespace velkor::service
