// The account commands of the example host with the real service.
#include <gtest/gtest.h>

#include "tests/system/Hosts.h"

namespace velkor::test {
namespace {

class AccountCommandsTest : public testing::Test {
protected:
    void SetUp() override { a.must({"signup", "u@example.org", "p&ss=wörd"}); }

    TemporaryDirectory directory;
    Service service{directory / "service"};
    Host a{directory / "A", service.url()}, b{directory / "B", service.url()};
};

TEST_F(AccountCommandsTest, PasswordsAreChangedAndReset) {
    EXPECT_EQ(a.run({"passwd", "wrong", "new"}).status, 1);
    a.must({"passwd", "p&ss=wörd", "50% + ümlaut"});
    a.must({"add", "One", "--guid", "N1"});
    a.must({"sync"});
    EXPECT_EQ(b.run({"login", "u@example.org", "p&ss=wörd"}).status, 1);
    b.must({"login", "u@example.org", "50% + ümlaut"});

    b.must({"reset-password", "u@example.org"});
    Outcome reset = run("velkord", {"reset-password", "--user", "u@example.org", "--data", (directory / "service").string()});
    ASSERT_EQ(reset.status, 0) << reset.err;
    EXPECT_EQ(a.run({"sync"}).status, 1);
    a.must({"login", "u@example.org", reset.out.substr(0, reset.out.find('\n'))});
    a.must({"sync"});
}

TEST_F(AccountCommandsTest, ClientsRegisterAndAUserGoesWithEverything) {
    a.must({"register", "name=A & B", "os=linux"});
    EXPECT_NE(a.must({"clients"}).find(R"("client_info":{"name":"A & B","os":"linux"})"), std::string::npos);
    a.must({"add", "One", "--guid", "N1"});
    a.must({"sync"});
    a.must({"delete-account"});
    EXPECT_EQ(b.run({"login", "u@example.org", "p&ss=wörd"}).status, 1);
    b.must({"signup", "u@example.org", "another"});
    b.must({"sync"});
    EXPECT_EQ(b.must({"clients"}), "[]");
    EXPECT_EQ(b.must({"dump"}).find("N1"), std::string::npos);
}

}  // namespace
}  // namespace velkor::test
