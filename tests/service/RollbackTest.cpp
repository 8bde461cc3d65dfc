#include "service/Rollback.h"

#include "service/Expiry.h"
#include "tests/service/ServiceFixture.h"

namespace velkor::service {
namespace {

using Lines = std::vector<std::string>;

NS::Dictionary update(const std::string& guid, const std::string& title) {
    return transaction("UPDATE_XACTION", "Note", guid, title);
}

class RollbackTest : public ServiceFixture {};

TEST_F(RollbackTest, restoresWhatTheLatestRequestReplaced) {
    TestClient a = client("A"), b = client("B");
    a.cycle({insertOf("n1", "one"), insertOf("n2", "two")});
    const std::string hash = a.hash;
    a.lock();
    a.changes({update("n1", "uno"), deletionOf("n2"), insertOf("n3", "three")});
    EXPECT_EQ(a.rollback().status, 200);
    a.unlock();
    EXPECT_EQ(summary(b.cycle()), (Lines{"n1:one", "n2:two"}));
    EXPECT_EQ(b.hash, hash);
    EXPECT_EQ(b.highest, 5);  // numbers are never used twice
    // The client, whose request failed, sends the same again.
    EXPECT_EQ(summary(a.cycle({update("n1", "uno"), deletionOf("n2"), insertOf("n3", "three")})), Lines{});
    EXPECT_EQ(summary(b.cycle()), (Lines{"n1:uno", "n2:-", "n3:three"}));
    EXPECT_EQ(b.highest, 8);
}

TEST_F(RollbackTest, reachesOnlyTheLatestRequestOfTheHolder) {
    TestClient a = client("A"), b = client("B");
    struct Case {
        const char* what;
        std::function<void()> between;
        Lines kept;
    };
    const std::vector<Case> cases{
        {"nothing", [] {}, {"g:old"}},
        {"changes", [&] { a.changes({}); }, {"g:new"}},
        {"lock", [&] { a.lock(); }, {"g:new"}},
        {"unlock and lock", [&] { a.unlock(), a.lock(); }, {"g:new"}},
        {"end of the lease", [&] { m_time += 1'000'000, b.lock(), b.unlock(), a.lock(); }, {"g:new"}},
        {"no lock", [&] { a.unlock(); }, {"g:new"}},
        {"a page", [&] { a.page(1, "changes-1-1-0-1-0-500"); }, {"g:old"}},
        {"a restart", [&] { start(); }, {"g:old"}},
        {"a repeat", [&] { a.changes({update("g", "new")}); }, {"g:new"}},
    };
    int number = 0;
    for (const auto& [what, between, kept] : cases) {
        a.cycle({update("g", "old")});
        a.lock();
        a.changes({update("g", "new")});
        between();
        EXPECT_EQ(a.rollback().status, 200);
        a.unlock();
        TestClient reader = client("R" + std::to_string(++number));
        EXPECT_EQ(summary(reader.cycle()), kept) << what;
        a.cycle({update("g", "new")});  // brings again what was rolled back
    }
}

TEST_F(RollbackTest, whatNeverComesAgainIsReinstated) {
    TestClient a = client("A"), b = client("B");
    a.lock();
    a.accept(a.changes({insertOf("n1", "one"), insertOf("n2", "two")}, true));
    // The next request never arrives; the client rolls back, and sends only what was not acknowledged.
    a.rollback();
    a.unlock();
    EXPECT_EQ(summary(b.cycle()), Lines{});
    a.lock();
    a.accept(a.changes({insertOf("n3", "three")}, true));
    EXPECT_EQ(summary(TestClient::transactionsOf(parsed(a.changes({update("n2", "due")}).body))), Lines{});
    a.unlock();
    EXPECT_EQ(summary(b.cycle()), (Lines{"n3:three", "n1:one", "n2:due"}));
    a.cycle();
    EXPECT_EQ(summary(b.cycle()), Lines{});  // once
}

TEST_F(RollbackTest, reinstatingYieldsToWhatOthersWroteSince) {
    TestClient a = client("A"), b = client("B");
    a.cycle({insertOf("n1", "zero")});
    b.cycle();
    a.lock();
    a.accept(a.changes({update("n1", "a's")}, true));
    a.rollback();
    a.unlock();
    b.cycle({update("n1", "b's")});
    EXPECT_EQ(summary(a.cycle()), Lines{"n1:b's"});
    EXPECT_EQ(summary(b.cycle()), Lines{});
}

TEST_F(RollbackTest, linksGetTheirOldStateBack) {
    TestClient a = client("A"), b = client("B");
    auto note = [](const std::string& book) {
        return transaction("UPDATE_XACTION", "Note", "n", "t", {{"notebook", toOne("notebook", "Notebook", book)}});
    };
    auto notebook = [](const std::string& guid, const std::vector<std::string>& notes) {
        return transaction("UPDATE_XACTION", "Notebook", guid, "t", {{"notes", toMany("notes", "Note", notes)}});
    };
    a.cycle({note("b1"), notebook("b1", {"n"}), notebook("b2", {})});
    b.cycle();
    a.lock();
    a.changes({note("b2"), notebook("b1", {}), notebook("b2", {"n"})});
    a.rollback();
    a.unlock();
    EXPECT_EQ(summary(b.cycle()), Lines{});
    // B's list is taken as it is: nobody has written since its HIGHEST_XACTION as far as anybody can see.
    b.cycle({notebook("b1", {"n", "m"}),
             transaction("INSERT_XACTION", "Note", "m", "t", {{"notebook", toOne("notebook", "Notebook", "b1")}})});
    for (const auto& member : client("C").cycle()) {
        if (*member["xaction_object_guid"].asString() != "n") continue;
        const NS::Dictionary* computed = member["computed_relationships"].asDictionary();
        const NS::Dictionary description =
            computed
                ? *(*computed)["notebook"].asDictionary()
                : *(*unpacked(*member["xaction_object"].asString())["relationships"].asDictionary())["notebook"].asDictionary();
        EXPECT_EQ(description["destination_object"].stringOr("none"), "b1");
    }
}

TEST_F(RollbackTest, anExpiryOutlivesTheRollback) {
    TestClient a = client("A"), b = client("B");
    a.cycle({insertOf("n1", "one")});
    a.lock();
    const std::vector<NS::Dictionary> edits{update("n1", "uno"), insertOf("n2", "two")};
    a.changes(edits);
    for (const char* guid : {"n1", "n2"}) ASSERT_TRUE(expire(*m_database, "u@example.org", "app", guid));
    a.rollback();
    a.unlock();
    EXPECT_EQ(summary(b.cycle()), (Lines{"n1:expired", "n2:expired"}));
    // The client, whose request failed, sends the same again.
    EXPECT_EQ(summary(a.cycle(edits)), (Lines{"n1:expired", "n2:expired"}));
    EXPECT_EQ(a.hash, b.hash);
}

TEST_F(RollbackTest, withoutInstanceItIsRefused) {
    TestClient a = client("A");
    EXPECT_EQ(a.send("POST", "/transactions/rollback.json", "").status, 400);
    EXPECT_EQ(a.rollback().status, 200);
}

}  // namespace
}  // namespace velkor::service
