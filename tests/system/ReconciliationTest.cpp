// Stores that got out of step with the real service are mended by comparing lists, and the cycle ends.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "Sync/VLKSyncController.h"
#include "platform/concurrency/RunLoop.h"
#include "tests/support/NotesModel.h"
#include "tests/system/Hosts.h"

namespace velkor::test {
namespace {

constexpr const char* address = "u@example.org";
constexpr const char* secret = "pw";

class ReconciliationTest : public testing::Test {
protected:
    void SetUp() override {
        a.must({"signup", address, secret});
        b.must({"login", address, secret});
        a.must({"notebook", "Work", "--guid", "NB"});
        for (const char* guid : {"N1", "N2", "N3"}) a.must({"add", guid, "--guid", guid, "--notebook", "NB", "--tag", "t"});
        syncToRest({&a, &b});
    }

    /// Runs SQL on the host's store, behind the host's back.
    static void damage(const Host& host, const std::string& sql) {
        sqlite3* store = nullptr;
        ASSERT_EQ(sqlite3_open((host.directory() / "Notes.sqlite").c_str(), &store), SQLITE_OK);
        char* message = nullptr;
        EXPECT_EQ(sqlite3_exec(store, sql.c_str(), nullptr, nullptr, &message), SQLITE_OK) << message;
        sqlite3_free(message);
        sqlite3_close(store);
    }
    /// How many listings a sync of the host needs; it must succeed.
    static std::ptrdiff_t listingsOf(const Host& host) {
        const Outcome outcome = host.run({"--log-level", "400", "sync"});
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        std::ptrdiff_t count = 0;
        const std::string line = "Received data from server for known objects";
        for (auto at = outcome.err.find(line); at != outcome.err.npos; at = outcome.err.find(line, at + 1)) ++count;
        return count;
    }

    TemporaryDirectory directory;
    Service service{directory / "service", {}, {"--page", "2"}};
    Host a{directory / "A", service.url()}, b{directory / "B", service.url()};
};

TEST_F(ReconciliationTest, AStoreThatLostObjectsGetsThemBackEveryTime) {
    for (int round = 0; round < 2; ++round) {
        damage(b, "DELETE FROM e_Note WHERE a_guid <> 'N2'");
        ASSERT_NE(a.must({"hash"}), b.must({"hash"}));
        EXPECT_EQ(listingsOf(b), 1);
        EXPECT_EQ(listingsOf(b), 0);
        expectEqual(a, b);
    }
}

TEST_F(ReconciliationTest, AStoreThatMissedADeletionLosesTheObject) {
    a.must({"rm", "N1"});
    a.must({"sync"});
    b.must({"sync"});
    damage(b, "INSERT INTO e_Note (v, a_guid, a_title) VALUES (1, 'N1', 'a ghost')");
    EXPECT_EQ(listingsOf(b), 1);
    EXPECT_EQ(listingsOf(b), 0);
    EXPECT_EQ(b.must({"dump"}).find("ghost"), std::string::npos);
    expectEqual(a, b);
}

TEST_F(ReconciliationTest, AServiceThatLostItsDataGetsThemBackFromAStore) {
    a.must({"delete-data"});
    EXPECT_EQ(listingsOf(a), 1);
    EXPECT_EQ(listingsOf(a), 0);
    Host fresh(directory / "fresh", service.url());
    fresh.must({"login", address, secret});
    syncToRest({&a, &b, &fresh});
    expectEqual(a, b);
    expectEqual(a, fresh);
    EXPECT_NE(fresh.must({"dump"}).find("\"N3\""), std::string::npos);
}

TEST_F(ReconciliationTest, APreferenceThatNobodyCanSendEndsTheCycle) {
    a.must({"set", "theme", "dark"});
    EXPECT_EQ(listingsOf(a), 1);
    EXPECT_EQ(listingsOf(a), 0);
    a.must({"add", "Four", "--guid", "N4"});
    EXPECT_EQ(listingsOf(a), 0);
    EXPECT_EQ(listingsOf(b), 0);
    EXPECT_NE(b.must({"dump"}).find("\"N4\""), std::string::npos);
}

/// An installation in the test's own process.
class Engine {
public:
    explicit Engine(const std::string& url) : m_controller(url, [this] { return store.newContext(); }), host(store.newContext()) {
        m_controller.setAppId("org.velkor.notes");
        m_controller.setStateSavePath((store.directory() / "SyncState.plist").string());
    }
    VLKSyncController& operator*() { return m_controller; }
    VLKSyncController* operator->() { return &m_controller; }

    void save() {
        const auto saved = host->save();
        ASSERT_TRUE(saved.ok()) << saved.error().description();
        for (int turn = 0; turn < 5; ++turn) NS::RunLoop::main().dispatchPending();
    }
    bool isAtRest() {
        const auto& report = m_controller.cycleReport();
        return !m_controller.syncInProgress() && (report.unlockAnswered || report.lockError);
    }
    bool logIn() {
        bool answered = false, success = false;
        m_controller.loginWithEmailAddress(address, secret, [&](bool ok, const auto&) {
            answered = true;
            success = ok;
        });
        return NS::RunLoop::main().runUntil([&] { return answered; }, 30) && success;
    }
    bool rest() {
        return NS::RunLoop::main().runUntil([this] { return isAtRest(); }, 30);
    }
    bool sync() {
        m_controller.forceSync();
        return rest() && !m_controller.cycleReport().lockError && !m_controller.lastError();
    }

private:
    class Controller : public VLKSyncController {
    public:
        Controller(const std::string& url, VLKContextCreator creator) : VLKSyncController(url, std::move(creator)) {}
    };

public:
    NotesStore store;

private:
    Controller m_controller;

public:
    std::shared_ptr<NS::ManagedObjectContext> host;
};

TEST_F(ReconciliationTest, AnEngineAndAHostExchangeTheirObjects) {
    Engine engine(service.url());
    ASSERT_TRUE(engine.logIn());
    ASSERT_TRUE(engine.rest());
    insertObject(*engine.host, "Note", "E1", {{"title", "set as a string"}});
    engine.save();
    b.must({"add", "B's", "--guid", "B1"});
    ASSERT_TRUE(engine.sync());
    b.must({"sync"});
    ASSERT_TRUE(engine.sync());
    const std::vector<std::string> all{"B1", "E1", "N1", "N2", "N3"};
    EXPECT_EQ(guidsOf(*engine.host, "Note"), all);
    EXPECT_EQ(engine->cycleReport().listings, 0);
    EXPECT_NE(b.must({"dump"}).find("set as a string"), std::string::npos);
    EXPECT_EQ(linked(fetchObject(*engine.host, "Notebook", "NB"), "notes"), (std::vector<std::string>{"N1", "N2", "N3"}));
    EXPECT_EQ(listingsOf(b), 0);
}

TEST_F(ReconciliationTest, TheLockIsFreeOnceALoginsUnlockIsAnswered) {
    Engine engine(service.url());
    ASSERT_TRUE(engine.logIn());
    // The callback comes while the unlock is under way: only a run loop that runs on brings it there.
    ASSERT_TRUE(engine.rest());
    a.must({"add", "Now", "--guid", "N5"});
    EXPECT_EQ(a.must({"sync"}), "synced: 1 sent, 0 received");
    // A lock that is asked for at once goes out behind the unlock.
    ASSERT_TRUE(engine.logIn());
    bool granted = false;
    engine->lockWithContinuation([&] { granted = true; });
    ASSERT_TRUE(NS::RunLoop::main().runUntil([&] { return granted; }, 30));
    EXPECT_EQ(a.run({"sync"}).status, 1);
    engine->unlock();
    ASSERT_TRUE(engine.rest());
    EXPECT_EQ(a.run({"sync"}).status, 0);
}

}  // namespace
}  // namespace velkor::test
