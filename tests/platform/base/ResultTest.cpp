#include "platform/base/Result.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace velkor::NS {
namespace {

Result<std::vector<std::string>> words() { return std::vector<std::string>{"one text that is too long to lie inside", "two"}; }

TEST(ResultTest, theValueOfATemporaryLivesAsLongAsTheLoopOverIt) {
    std::string text;
    for (const std::string& word : words().value()) text += word;
    EXPECT_EQ(text, "one text that is too long to lie insidetwo");
}

}  // namespace
}  // namespace velkor::NS
