#include "service/Options.h"

#include <gtest/gtest.h>

#include <vector>

namespace velkor::service {
namespace {

using Arguments = std::vector<const char*>;

TEST(OptionsTest, readsWhatTheCommandLineSays) {
    const auto options =
        Options::parse(Arguments{"--data", "/d", "--listen", "[::1]:0", "--lease", "5", "--page", "7", "--max-body", "1000",
                                 "--max-blob", "2000", "--blob-store", "s3://b", "--log-level", "300"});
    ASSERT_TRUE(options);
    EXPECT_EQ(options.value().dataDirectory, "/d");
    EXPECT_EQ(options.value().host, "::1");
    EXPECT_EQ(options.value().port, 0);
    EXPECT_EQ(options.value().leaseSeconds, 5);
    EXPECT_EQ(options.value().page, 7);
    EXPECT_EQ(options.value().maximumBody, 1000);
    EXPECT_EQ(options.value().maximumBlob, 2000);
    EXPECT_EQ(options.value().blobStoreUrl, "s3://b");
    EXPECT_EQ(options.value().logLevel, 300);
    const auto plain = Options::parse({});
    ASSERT_TRUE(plain);
    EXPECT_EQ(plain.value().host, "127.0.0.1");
    EXPECT_EQ(plain.value().port, 8330);
    const auto expire = Options::parse(Arguments{"expire", "--user", "u", "--app", "a", "--guid", "g", "--data", "/d"});
    ASSERT_TRUE(expire && expire.value().expire);
    EXPECT_EQ(expire.value().expire->guid, "g");
    const auto reset = Options::parse(Arguments{"reset-password", "--user", "u", "--data", "/d"});
    ASSERT_TRUE(reset);
    EXPECT_EQ(reset.value().resetUser, "u");
    EXPECT_EQ(expire.value().databaseUrl, "");
    const auto shared = Options::parse(Arguments{"--database", "postgresql://u@h/d", "--data", "/d"});
    ASSERT_TRUE(shared);
    EXPECT_EQ(shared.value().databaseUrl, "postgresql://u@h/d");
    const auto sharedExpire =
        Options::parse(Arguments{"expire", "--user", "u", "--app", "a", "--guid", "g", "--database", "postgresql:///d"});
    ASSERT_TRUE(sharedExpire);
    EXPECT_EQ(sharedExpire.value().databaseUrl, "postgresql:///d");
}

TEST(OptionsTest, refusesWhatItDoesNotKnow) {
    for (const Arguments& arguments :
         {Arguments{"--nonsense", "1"}, Arguments{"--data"}, Arguments{"--data", ""}, Arguments{"--listen", "localhost"},
          Arguments{"--listen", "h:65536"}, Arguments{"--listen", ":80"}, Arguments{"--lease", "0"}, Arguments{"--page", "x"},
          Arguments{"--database", ""}, Arguments{"--page", "5 "}, Arguments{"--max-body", "-1"}, Arguments{"serve"},
          Arguments{"expire"}, Arguments{"expire", "--user", "u", "--app", "a"}, Arguments{"expire", "--page", "3"},
          Arguments{"reset-password"}, Arguments{"reset-password", "--user", "u", "--app", "a"}}) {
        const auto options = Options::parse(arguments);
        EXPECT_FALSE(options) << arguments[0];
    }
}

}  // namespace
}  // namespace velkor::service
