// The account commands of velkor-notes against the real service.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/system/Hosts.h"

namespace velkor::test {
namespace {

class NotesAccountTest : public testing::Test {
protected:
    void SetUp() override { a.must({"signup", "u+1@example.org", "p&ss=wörd"}); }

    TemporaryDirectory directory;
    Service service{directory / "service"};
    Host a{directory / "A", service.url()}, b{directory / "B", service.url()};
};

TEST_F(NotesAccountTest, ANewPasswordIsKeptAndTheOldOneRefused) {
    EXPECT_EQ(a.run({"passwd", "wrong", "new"}).status, 1);
    a.must({"sync"});
    EXPECT_EQ(a.must({"passwd", "p&ss=wörd", "new = + & %41"}), "");
    a.must({"sync"});
    EXPECT_EQ(b.run({"login", "u+1@example.org", "p&ss=wörd"}).status, 1);
    b.must({"login", "u+1@example.org", "new = + & %41"});
    // Both from standard input, a line each.
    Outcome outcome = run("velkor-notes", {"--data", a.directory(), "--server", service.url(), "passwd", "-", "-"}, {},
                          "new = + & %41\nthird\n");
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    a.must({"sync"});
    EXPECT_EQ(b.run({"sync"}).status, 1);
}

TEST_F(NotesAccountTest, AResetTellsNobodyWhoHasAnAccountAndIsTheOperatorsToDo) {
    EXPECT_EQ(b.must({"reset-password", "u+1@example.org"}), "");
    EXPECT_EQ(b.must({"reset-password", "nobody@example.org"}), "");
    a.must({"sync"});
    Outcome reset = run("velkord", {"reset-password", "--user", "u+1@example.org", "--data", (directory / "service").string()});
    ASSERT_EQ(reset.status, 0) << reset.err;
    EXPECT_EQ(a.run({"sync"}).status, 1);
    a.must({"login", "u+1@example.org", reset.out.substr(0, reset.out.find('\n'))});
    a.must({"sync"});
}

TEST_F(NotesAccountTest, ClientsAreListedAsTheyRegistered) {
    EXPECT_EQ(a.must({"clients"}), "[]");
    EXPECT_EQ(a.must({"register", "name=Ann's \"laptop\"", "os=Debian=12", "empty="}), "");
    std::string clients = a.must({"clients"});
    EXPECT_NE(clients.find(R"("client_info":{"name":"Ann's \"laptop\"","os":"Debian=12","empty":""})"), std::string::npos)
        << clients;
    std::string state = a.must({"state"});
    std::string instance = state.substr(16, 36);
    EXPECT_NE(clients.find(instance), std::string::npos) << clients << state;
    a.must({"register", "name=again"});
    clients = a.must({"clients"});
    EXPECT_EQ(clients.find("laptop"), std::string::npos) << clients;
}

TEST_F(NotesAccountTest, ADeletedAccountIsForgotten) {
    a.must({"add", "One", "--guid", "N1"});
    a.must({"sync"});
    EXPECT_EQ(a.must({"delete-account"}), "");
    EXPECT_FALSE(std::filesystem::exists(a.directory() / "account.json"));
    EXPECT_EQ(a.run({"sync"}).status, 1);
    EXPECT_EQ(b.run({"login", "u+1@example.org", "p&ss=wörd"}).status, 1);
    EXPECT_NE(a.must({"dump"}).find("N1"), std::string::npos) << "the notes stay on this machine";
    // The address is free again, and a new account takes everything anew.
    a.must({"signup", "u+1@example.org", "p&ss=wörd"});
    b.must({"login", "u+1@example.org", "p&ss=wörd"});
    syncToRest({&a, &b});
    expectEqual(a, b);
    EXPECT_NE(b.must({"dump"}).find("N1"), std::string::npos);
}

}  // namespace
}  // namespace velkor::test
