// Two services on one PostgreSQL database behind one address: hosts cannot tell them from one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "tests/support/PostgreSQL.h"
#include "tests/support/RoundRobin.h"
#include "tests/system/Hosts.h"

namespace velkor::test {
namespace {

class SharedDatabaseTest : public testing::Test {
protected:
    void SetUp() override {
        a.must({"signup", "u@example.org", "pw"});
        b.must({"login", "u@example.org", "pw"});
    }

    TemporaryDirectory directory;
    PostgreSQLDatabase database;
    const std::vector<std::string> options{"--database", database.url(), "--page", "3"};
    Service one{directory / "blobs", {}, options}, two{directory / "blobs", {}, options};
    RoundRobin front{{one.url(), two.url()}};
    Host a{directory / "A", front.url()}, b{directory / "B", front.url()};
};

TEST_F(SharedDatabaseTest, HostsConvergeThroughBothServices) {
    a.must({"notebook", "Work", "--guid", "NB"});
    for (int i = 0; i < 8; ++i) a.must({"add", "Note", "--guid", "N" + std::to_string(i), "--notebook", "NB", "--tag", "t"});
    EXPECT_EQ(a.must({"sync"}), "synced: 10 sent, 0 received");  // with the tag
    EXPECT_EQ(b.must({"sync"}), "synced: 0 sent, 10 received");  // page by page
    b.must({"edit", "N0", "--title", "Edited on B"});
    b.must({"rm", "N1"});
    b.must({"add", "From B", "--guid", "B1", "--notebook", "NB"});
    a.must({"edit", "N2", "--title", "Edited on A", "--untag", "t"});
    a.must({"add", "From A", "--guid", "A1", "--notebook", "NB"});
    syncToRest({&a, &b});
    expectEqual(a, b);
    EXPECT_EQ(run("velkord", {"expire", "--database", database.url(), "--user", "u@example.org", "--app", "org.velkor.notes",
                              "--guid", "N3"})
                  .status,
              0);
    syncToRest({&a, &b});
    expectEqual(a, b);
    for (const std::size_t count : front.answered()) EXPECT_GT(count, 10u);
}

TEST_F(SharedDatabaseTest, OneServiceGoesOnWhereTheOtherDied) {
    a.must({"add", "One", "--guid", "N1"});
    a.must({"sync"});
    two.program().signal(SIGKILL);
    two.program().wait();
    a.must({"edit", "N1", "--title", "Edited"});
    b.must({"add", "Two", "--guid", "N2"});
    syncToRest({&a, &b});
    expectEqual(a, b);
    EXPECT_THAT(b.must({"dump"}), testing::HasSubstr("Edited"));
}

}  // namespace
}  // namespace velkor::test
