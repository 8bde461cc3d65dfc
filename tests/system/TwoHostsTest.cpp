// Two hosts and the real service: what one does arrives at the other, whatever both did meanwhile.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>

#include "tests/system/Hosts.h"

namespace velkor::test {
namespace {

class TwoHostsTest : public testing::Test {
protected:
    void SetUp() override {
        a.must({"signup", "ümlaut+tag@example.org", "p&ss=wörd"});
        b.must({"login", "ümlaut+tag@example.org", "p&ss=wörd"});
    }

    TemporaryDirectory directory;
    Service service{directory / "service", {}, {"--page", "50"}};
    Host a{directory / "A", service.url()}, b{directory / "B", service.url()};
};

TEST_F(TwoHostsTest, ChangesOfBothSidesMeet) {
    a.must({"notebook", "Work", "--guid", "NB"});
    a.must({"notebook", "Private", "--guid", "PRIVATE", "--private"});
    a.must({"draft", "stays here"});
    a.must({"add", "One", "--guid", "N1", "--notebook", "NB", "--tag", "red", "--rating", "5", "--score", "0.1", "--pinned"});
    a.must({"add", "Two", "--guid", "N2", "--body", "line\nwith \"quotes\" and \\ and \xF0\x9F\x98\x80"});
    EXPECT_EQ(a.must({"sync"}), "synced: 4 sent, 0 received");
    EXPECT_EQ(b.must({"sync"}), "synced: 0 sent, 4 received");
    EXPECT_EQ(b.must({"dump"}).find("stays here"), std::string::npos);
    EXPECT_EQ(b.must({"dump"}).find("PRIVATE"), std::string::npos);
    EXPECT_EQ(a.must({"hash"}), b.must({"hash"}));
    EXPECT_EQ(a.must({"show", "N2", "--json"}), b.must({"show", "N2", "--json"}));

    a.must({"add", "From A", "--notebook", "NB", "--tag", "blue"});
    b.must({"add", "From B", "--notebook", "NB", "--tag", "blue"});
    a.must({"edit", "N1", "--title", "Edited on A"});
    b.must({"edit", "N1", "--untag", "red", "--tag", "green"});
    b.must({"edit", "N2", "--notebook", "NB"});
    a.must({"rm", "PRIVATE"});
    a.must({"draft", "another"});
    syncToRest({&a, &b});
    EXPECT_EQ(a.must({"hash"}), b.must({"hash"}));
    std::string dump = b.must({"dump"});
    std::string notebook = dump.substr(dump.find("{\"entity\":\"Notebook\""));
    EXPECT_EQ(std::count(notebook.begin(), notebook.begin() + static_cast<long>(notebook.find('\n')), ','), 7)
        << "four notes in it: " << notebook;
    EXPECT_EQ(a.must({"--json", "sync"}), R"({"ok":true,"sent":0,"received":0,"error":null})");
}

TEST_F(TwoHostsTest, DeletionsArriveAndEditsOfOneNoteConverge) {
    for (const char* guid : {"N1", "N2", "N3"}) a.must({"add", guid, "--guid", guid, "--tag", "t"});
    syncToRest({&a, &b});
    a.must({"rm", "N1"});
    b.must({"edit", "N2", "--body", "from B"});
    a.must({"edit", "N2", "--body", "from A"});
    b.must({"rm", "N3"});
    a.must({"edit", "N3", "--body", "still wanted on A"});
    syncToRest({&a, &b});
    expectEqual(a, b);
    EXPECT_EQ(a.must({"dump"}).find("\"N1\""), std::string::npos);
}

TEST_F(TwoHostsTest, ABusyUserIsReportedAndNotRetried) {
    a.must({"add", "One"});
    // Another client of the same user holds the lock.
    // The pair is sent in the cut form that all clients of this service send.
    Outcome locked = run("/bin/sh", {"-c",
                                     "pair=$(printf '%s' 'ümlaut+tag@example.org:p&ss=wörd' | head -c 32 | base64 -w0); curl -sf "
                                     "-H \"Authorization: Basic $pair\" " +
                                         service.url() + "/client/v1.5/org.velkor.notes/OTHER/lock.json"});
    ASSERT_EQ(locked.status, 0) << locked.err;
    Outcome outcome = a.run({"--json", "sync"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.out.find(
                  R"({"ok":false,"sent":0,"received":0,"error":{"domain":"org.velkor.sync.NetworkErrorDomain","code":409)"),
              std::string::npos)
        << outcome.out;
    EXPECT_NE(a.must({"pending"}), "[]");
}

TEST_F(TwoHostsTest, ARefusedLoginSaysSoOnce) {
    Outcome outcome = b.run({"login", "ümlaut+tag@example.org", "wrong"});
    EXPECT_EQ(outcome.status, 1);
    std::size_t count = 0;
    for (auto at = outcome.err.find("velkor-notes: login failed"); at != std::string::npos;
         at = outcome.err.find("velkor-notes: login failed", at + 1))
        ++count;
    EXPECT_EQ(count, 1u) << outcome.err;
    EXPECT_NE(b.must({"state"}).find("\"user\":\"ümlaut+tag@example.org\""), std::string::npos) << "the kept account stays";
}

TEST_F(TwoHostsTest, LogoutDiscardsPendingChanges) {
    a.must({"add", "One"});
    Outcome outcome = a.run({"logout"});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_NE(outcome.err.find("1 pending changes are discarded"), std::string::npos) << outcome.err;
    EXPECT_EQ(a.must({"pending"}), "[]");
    EXPECT_EQ(a.run({"sync"}).status, 1);
    EXPECT_FALSE(std::filesystem::exists(a.directory() / "account.json"));
}

TEST_F(TwoHostsTest, WatchPicksUpWhatOtherRunsSavedAndStopsOnASignal) {
    auto watching = a.start({"watch", "--interval", "1"});
    watching->waitForLine("synced: ");
    a.must({"add", "While watching", "--guid", "W1"});
    while (watching->waitForLine("synced: ") != "1 sent, 0 received" && !HasFailure()) {
    }
    EXPECT_EQ(b.must({"sync"}), "synced: 0 sent, 1 received");
    watching->signal(SIGTERM);
    EXPECT_EQ(watching->wait().status, 0);
    EXPECT_EQ(a.must({"pending"}), "[]");
}

TEST_F(TwoHostsTest, WatchGoesOnWithTheAccountThatOtherRunsKept) {
    auto watching = a.start({"watch", "--interval", "1"});
    const auto lineThatMoves = [&watching] {
        std::string line;
        do line = watching->waitForLine("");
        while (line == "synced: 0 sent, 0 received");
        return line;
    };
    watching->waitForLine("synced: ");
    a.must({"passwd", "p&ss=wörd", "another"});
    a.must({"add", "One", "--guid", "N1"});
    EXPECT_EQ(lineThatMoves(), "synced: 1 sent, 0 received");

    a.must({"logout"});
    Outcome outcome = watching->wait();
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "velkor-notes: no account: use signup or login first\n");
}

TEST_F(TwoHostsTest, WatchServesTheUserWhoIsLoggedInNow) {
    b.must({"logout"});
    b.must({"signup", "other@example.org", "pw"});
    auto watching = a.start({"watch", "--interval", "1"});
    watching->waitForLine("synced: ");
    a.must({"login", "other@example.org", "pw"});
    a.must({"add", "For the other", "--guid", "N1"});
    while (a.must({"pending"}) != "[]" && !HasFailure()) EXPECT_TRUE(watching->waitForLine("").starts_with("synced: "));
    watching->signal(SIGTERM);
    EXPECT_EQ(watching->wait().status, 0);
    b.must({"sync"});
    EXPECT_NE(b.must({"dump"}).find("For the other"), std::string::npos);
}

}  // namespace
}  // namespace velkor::test
