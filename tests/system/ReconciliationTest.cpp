// Stores that got out of step with the real service are mended by comparing lists, and the cycle ends.
#include <gtest/gtest.h>
#include <sqlite3.h>

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
    EXPECT_EQ(a.must({"delete-data"}), "");
    EXPECT_EQ(listingsOf(a), 1);
    EXPECT_EQ(listingsOf(a), 0);
    Host fresh(directory / "fresh", service.url());
    fresh.must({"login", address, secret});
    syncToRest({&a, &b, &fresh});
    expectEqual(a, b);
    expectEqual(a, fresh);
    EXPECT_NE(fresh.must({"dump"}).find("\"N3\""), std::string::npos);
}

TEST_F(ReconciliationTest, PreferencesThatNobodyCanSendEndTheCycle) {
    a.must({"set", "theme", "dark"});
    EXPECT_EQ(listingsOf(a), 1);
    EXPECT_EQ(listingsOf(a), 0);
    a.must({"add", "Four", "--guid", "N4"});
    EXPECT_EQ(listingsOf(a), 0);
    EXPECT_EQ(listingsOf(b), 0);
    EXPECT_NE(b.must({"dump"}).find("\"N4\""), std::string::npos);
    EXPECT_EQ(a.must({"pending"}), "[]");
    // Set on both, or on neither, it is no difference.
    b.must({"set", "theme", "light"});
    syncToRest({&a, &b});
    expectEqual(a, b);
    for (const Host* host : {&a, &b}) host->must({"unset", "theme"});
    syncToRest({&a, &b});
    expectEqual(a, b);
}

}  // namespace
}  // namespace velkor::test
