#include "PelmoLib/encodings/VLKLog.h"

#include <gtest/gtest.h>

#include "tests/support/LogCapture.h"

namespace velkor {
namespace {

struct Costly {
    mutable int* described;
    std::string description() const {
        ++*described;
        return "100% costly";
    }
};

TEST(VLKLogTest, writesUpToItsLevelAndDescribesNothingBeyond) {
    VLKLog& log = VLKLog::sharedInstance();
    EXPECT_EQ(&log, &VLKLog::sharedInstance());
    EXPECT_EQ(log.logLevel(), 100);
    test::LogCapture capture;
    int described = 0;
    log.logMessageAtLevel(100, "A %@ of %d%%: %@", "message", 7, Costly{&described});
    log.logMessageAtLevel(101, "%@", Costly{&described});
    EXPECT_EQ(capture.entries(), std::vector<std::string>{"A message of 7%: 100% costly"});
    EXPECT_EQ(described, 1);
    EXPECT_TRUE(log.isLoggingEnabledOfType(100));
    EXPECT_FALSE(log.isLoggingEnabledOfType(101));

    log.setLogLevel(0);
    log.logMessageAtLevel(100, "silenced");
    log.setLogLevel(400);
    log.logMessageAtLevel(400, "dump");
    log.setLogLevel(100);
    EXPECT_EQ(capture.entries().back(), "dump");
    EXPECT_EQ(capture.entries().size(), 2U);
}

}  // namespace
}  // namespace velkor
