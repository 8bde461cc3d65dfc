#include "service/KnownObjects.h"

#include <set>

#include "PelmoLib/encodings/GuidOrder.h"
#include "service/Expiry.h"
#include "tests/service/ServiceFixture.h"

namespace velkor::service {
namespace {

using Lines = std::vector<std::string>;
using Guids = std::set<std::string>;

std::string hashOf(const Guids& guids) {
    std::vector<std::string> sorted(guids.begin(), guids.end());
    sortUniqueGuids(sorted);
    return syncHashOfSortedGuids(std::span<const std::string>(sorted));
}

Lines unknownOf(const NS::Dictionary& answer) {
    Lines guids;
    for (const auto& guid : *answer["unknown_objects"].asArray()) guids.push_back(guid.stringOr("?"));
    return guids;
}

class KnownObjectsTest : public ServiceFixture {
protected:
    /// Lists the guids and takes the answer as a client does: what was sent, and what is asked for.
    struct Listed {
        Lines sent, unknown;
    };
    static Listed list(TestClient& client, const Guids& guids) {
        const Response response = client.listing({guids.begin(), guids.end()});
        EXPECT_EQ(response.status, 200) << response.body;
        const std::string hash = client.hash;
        Listed listed{summary(client.accept(response)), unknownOf(parsed(response.body))};
        client.hash = hash;
        return listed;
    }
    /// A client with these objects, which all others know.
    TestClient clientWith(const std::string& instance, const std::vector<std::string>& guids) {
        TestClient one = client(instance);
        std::vector<NS::Dictionary> inserts;
        for (const auto& guid : guids) inserts.push_back(insertOf(guid, "of " + instance));
        one.cycle(inserts);
        return one;
    }
    /// Lock and changes: what a client does before it lists.
    static void begin(TestClient& client, const std::vector<NS::Dictionary>& transactions = {}) {
        ASSERT_EQ(client.lock().status, 200);
        client.accept(client.changes(transactions));
    }
};

TEST_F(KnownObjectsTest, sendsWhatIsMissingDeletedAndExpiredAndAsksForTheRest) {
    TestClient a = clientWith("A", {"here", "missing", "deleted", "expired"});
    a.cycle({deletionOf("deleted")});
    ASSERT_TRUE(expire(*m_database, "u@example.org", "app", "expired"));
    begin(a);
    const auto [sent, unknown] = list(a, {"here", "deleted", "expired", "new", "newer"});
    EXPECT_EQ(sent, (Lines{"missing:of A", "deleted:-", "expired:expired"}));
    EXPECT_EQ(unknown, (Lines{"new", "newer"}));
    EXPECT_EQ(a.highest, 7) << "the answer has a number of its own";
    // What is asked for comes under the same lock; then both agree.
    a.accept(a.changes({insertOf("new"), insertOf("newer")}));
    EXPECT_EQ(a.hash, hashOf({"here", "missing", "new", "newer"}));
    a.unlock();
    EXPECT_EQ(summary(client("B").cycle()),
              (Lines{"here:of A", "missing:of A", "deleted:-", "expired:expired", "new:", "newer:"}));
}

TEST_F(KnownObjectsTest, anAnswerThatSendsNothingHasNoNewNumber) {
    TestClient a = clientWith("A", {"n"});
    begin(a);
    const auto [sent, unknown] = list(a, {"n", "other"});
    EXPECT_EQ(sent, Lines{});
    EXPECT_EQ(unknown, Lines{"other"});
    EXPECT_EQ(a.highest, 1);
}

TEST_F(KnownObjectsTest, bringsWhatWasNumberedAfterTheChangesAnswer) {
    TestClient a = clientWith("A", {"n", "m"});
    begin(a);
    ASSERT_TRUE(expire(*m_database, "u@example.org", "app", "n"));
    const auto [sent, unknown] = list(a, {"m"});  // it has removed n meanwhile
    EXPECT_EQ(sent, Lines{"n:expired"});
    a.unlock();
    EXPECT_EQ(summary(a.cycle()), Lines{});
    EXPECT_EQ(a.hash, hashOf({"m"}));
}

TEST_F(KnownObjectsTest, needsTheLockAndAChangesRequestUnderIt) {
    TestClient a = clientWith("A", {"n"}), otherApp = client("A", "other");
    EXPECT_EQ(a.listing({"n"}).status, 409);
    a.lock();
    EXPECT_EQ(a.listing({"n"}).status, 409);
    a.changes({});
    EXPECT_EQ(a.listing({"n"}).status, 200);
    otherApp.lock();  // the same instance takes its lock again
    EXPECT_EQ(a.listing({"n"}).status, 409);
    otherApp.changes({});
    EXPECT_EQ(a.listing({"n"}).status, 409);
    EXPECT_EQ(otherApp.listing({}).status, 200);
}

TEST_F(KnownObjectsTest, whatIsNoListingIsRefusedAndWhatIsNoGuidIsLeftOut) {
    TestClient a = clientWith("A", {"n"});
    begin(a);
    for (const char* body : {"", "[]", "{}", R"({"allObjects":"n"})", R"({"allObjects":[1],"app_id":"app"})",
                             R"({"allObjects":["n"],"app_id":"app")", R"({"allObjects":["n)"}) {
        EXPECT_EQ(a.send("POST", "/users/1/known_objects/sync.json", body).status, 400) << body;
    }
    const Response response =
        a.send("POST", "/users/1/known_objects/sync.json",
               R"({"app_id":"app","allObjects":["n","","n","\u0000","caf\u00e9","café",")" + std::string(2000, 'x') + "\"]}");
    EXPECT_EQ(unknownOf(parsed(response.body)), Lines{"café"});
    EXPECT_EQ(a.send("POST", "/users/2/known_objects/sync.json", R"({"allObjects":[]})").status, 403);
}

TEST_F(KnownObjectsTest, aGuidThatIsAskedForAndNotBroughtIsWithheldUntilItChanges) {
    TestClient a = clientWith("A", {"n"});
    begin(a);
    EXPECT_EQ(list(a, {"n", "preference", "bad"}).unknown, (Lines{"bad", "preference"}));
    EXPECT_EQ(list(a, {"n", "preference", "bad"}).unknown, Lines{}) << "once under a lock";
    a.accept(a.changes({insertOf("m")}, true));
    EXPECT_EQ(list(a, {"n", "m", "preference", "bad"}).unknown, Lines{}) << "further parts may bring it";
    a.accept(a.changes({insertOf("bad")}));
    EXPECT_EQ(a.hash, hashOf({"n", "m", "preference", "bad"}));
    a.unlock();
    a.cycle({insertOf("o")});
    EXPECT_EQ(a.hash, hashOf({"n", "m", "o", "preference", "bad"}));
    TestClient b = client("B");
    b.cycle();
    EXPECT_EQ(b.hash, hashOf({"n", "m", "o", "bad"})) << "it counts for the instance that lists it only";

    // Another instance has such an object: it is one like any other from then on.
    b.cycle({insertOf("preference", "real")});
    EXPECT_EQ(summary(a.cycle()), Lines{"preference:real"});
    EXPECT_EQ(a.hash, b.hash);
    b.cycle({deletionOf("preference")});
    a.cycle();
    EXPECT_EQ(a.hash, hashOf({"n", "m", "o", "bad"}));
}

TEST_F(KnownObjectsTest, aLockThatEndsJudgesNothing) {
    TestClient a = clientWith("A", {"n"});
    for (int i = 0; i < 2; ++i) {
        begin(a);
        EXPECT_EQ(a.hash, hashOf({"n"}));
        EXPECT_EQ(list(a, {"n", "late"}).unknown, Lines{"late"});
        if (i == 0) a.unlock();
    }
    a.accept(a.changes({}));
    EXPECT_EQ(a.hash, hashOf({"n", "late"}));
    // It lists it no more: the withholding ends with the next listing.
    a.unlock();
    begin(a);
    list(a, {"n"});
    a.accept(a.changes({}));
    EXPECT_EQ(a.hash, hashOf({"n"}));
}

TEST_F(KnownObjectsTest, whatAnInstanceDoesNotKeepIsSentOnceAndWithheldUntilItChanges) {
    TestClient b = clientWith("B", {"n", "dropped"}), a = client("A");
    a.cycle();
    begin(a);
    EXPECT_EQ(list(a, {"n"}).sent, Lines{"dropped:of B"});
    a.unlock();
    begin(a);
    EXPECT_EQ(a.hash, hashOf({"n", "dropped"}));
    EXPECT_EQ(list(a, {"n"}).sent, Lines{});
    a.unlock();
    a.cycle();
    EXPECT_EQ(a.hash, hashOf({"n"}));
    b.cycle({transaction("UPDATE_XACTION", "Note", "dropped", "changed")});
    EXPECT_EQ(summary(a.cycle()), Lines{"dropped:changed"});
    EXPECT_EQ(a.hash, hashOf({"n", "dropped"}));
}

TEST_F(KnownObjectsTest, anAnswerThatWasNotWrittenIsSentAgain) {
    TestClient b = clientWith("B", {"n", "lost"}), a = client("A");
    a.cycle();
    for (int i = 0; i < 3; ++i) {
        const auto before = a.highest;
        begin(a);
        EXPECT_EQ(list(a, {"n"}).sent, Lines{"lost:of B"}) << i;
        a.highest = before;
        a.unlock();
    }
}

TEST_F(KnownObjectsTest, aStoreThatLosesTheSameObjectsTwiceGetsThemTwice) {
    TestClient b = clientWith("B", {"n", "lost"}), a = client("A");
    a.cycle();
    for (int i = 0; i < 3; ++i) {
        begin(a);
        EXPECT_EQ(list(a, {"n"}).sent, Lines{"lost:of B"}) << i;
        a.unlock();
        a.cycle();  // in agreement
    }
}

TEST_F(KnownObjectsTest, anExpiryThatAnInstanceCannotTakeIsWithheld) {
    TestClient a = clientWith("A", {"n", "old"});
    ASSERT_TRUE(expire(*m_database, "u@example.org", "app", "old"));
    for (const Lines& sent : {Lines{"old:expired"}, Lines{}}) {
        begin(a);
        EXPECT_EQ(list(a, {"n", "old"}).sent, sent);
        a.unlock();
    }
    a.cycle();
    EXPECT_EQ(a.hash, hashOf({"n", "old"}));
    EXPECT_EQ(client("B").cycle().size(), 2u);
}

TEST_F(KnownObjectsTest, aListingMakesFinalWhatWasProvisional) {
    TestClient a = clientWith("A", {"n"});
    begin(a, {insertOf("m")});
    list(a, {"n", "m"});
    a.rollback();
    a.unlock();
    EXPECT_EQ(client("B").cycle().size(), 2u);
}

TEST_F(KnownObjectsTest, longAnswersComeInPages) {
    start({.page = 3});
    std::vector<std::string> all;
    Lines lines;
    for (int i = 0; i < 10; ++i) {
        all.push_back("n" + std::to_string(i));
        if (i != 4) lines.push_back(all.back() + ":of B");
    }
    TestClient b = clientWith("B", all), a = client("A");
    a.cycle();
    begin(a);
    const auto answer = parsed(a.listing({"n4", "mine"}).body);
    EXPECT_TRUE(TestClient::transactionsOf(answer).empty());
    EXPECT_EQ(unknownOf(answer), Lines{"mine"});
    const std::string identifier = answer["batched_download_identifier"].stringOr("");
    auto page = [&](std::int64_t number) { return summary(TestClient::transactionsOf(parsed(a.page(number, identifier).body))); };
    for (std::int64_t number : {3, 1, 2, 4}) {
        const auto first = lines.begin() + std::min<std::int64_t>((number - 1) * 3, 9);
        EXPECT_EQ(page(number), Lines(first, std::min(first + 3, lines.end()))) << number;
    }
    EXPECT_EQ(list(a, {"n4", "mine"}).sent, lines);
    EXPECT_EQ(a.page(1, identifier).status, 409) << "it has been listed anew";
}

TEST_F(KnownObjectsTest, aHundredThousandGuidsOfBothKinds) {
    constexpr int count = 100'000;
    TestClient a = client("A");
    std::vector<NS::Dictionary> inserts;
    for (int i = 0; i < 2000; ++i) inserts.push_back(insertOf("known" + std::to_string(i)));
    a.cycle(inserts);
    begin(a);
    Guids listed;
    for (int i = 0; i < count; ++i) listed.insert("new" + std::to_string(i));
    for (int i = 0; i < 2000; i += 2) listed.insert("known" + std::to_string(i));
    const auto [sent, unknown] = list(a, listed);
    EXPECT_EQ(sent.size(), 1000u);
    EXPECT_EQ(unknown.size(), static_cast<std::size_t>(count));
    a.accept(a.changes({}));
    for (int i = 1; i < 2000; i += 2) listed.insert("known" + std::to_string(i));
    EXPECT_EQ(a.hash, hashOf(listed));
}

}  // namespace
}  // namespace velkor::service
