#include "platform/base/Format.h"

#include <gtest/gtest.h>

#include <limits>

#include "platform/base/SystemLog.h"

namespace velkor::NS {
namespace {

TEST(FormatTest, fillsConversionsInOrder) {
    const std::optional<std::string> none;
    const Value text = "text";
    const std::string cases[][2] = {
        {format("VLK Error: %@ while sending changes.", "boom"), "VLK Error: boom while sending changes."},
        {format("%@_%@_%@", none, std::string("id"), text), "(null)_id_text"},
        {format("%s|%5d|%-5d|%05d|", "m", 42, 42, 42), "m|   42|42   |00042|"},
        {format("%lld %lu %u", std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::uint64_t>::max(), -1),
         "-9223372036854775808 18446744073709551615 4294967295"},
        {format("%x %X %llx", 255, 255, -1), "ff FF ffffffffffffffff"},
        {format("%f %.2f %f", 0.5, 2.345, 3), "0.500000 2.35 3.000000"},
        {format("%d%% of %@", 7, nullptr), "7% of (null)"},
        {format("%@ and %@", 1), "1 and (null)"},
        {format("only this", 1, 2), "only this"},
        {format("%@ %@ %@", true, 1.5, 'c'), "1 1.5 99"},
        {format("%q stays, 100%", 1), "%q stays, 100%"},
        {format("%.3@|%6@|%-6@|", "abcdef", "abc", "abc"), "abc|   abc|abc   |"},
        {format("%999999999d", 1).substr(990), std::string(9, ' ') + "1"},
        {format("%@", std::vector<std::string>{"a", "b c"}), "(\n    a,\n    \"b c\"\n)"},
        {format("%@", Array()), "(\n)"},
        {format("%d", Value(5)), "5"},
    };
    for (const auto& [made, expected] : cases) EXPECT_EQ(made, expected);
}

TEST(FormatTest, printsTheWidestDoubles) {
    EXPECT_EQ(format("%.1000f", std::numeric_limits<double>::max()).size(), 309u + 1 + 1000);
}

TEST(ErrorTest, describesItself) {
    const Error plain(VelkorErrorDomain, 404);
    EXPECT_EQ(plain.localizedDescription(), "The operation couldn't be completed. (org.velkor.sync.ErrorDomain error 404.)");
    const Error told = Error::withDescription("Error", 7, "it broke");
    EXPECT_EQ(told.localizedDescription(), "it broke");
    EXPECT_EQ(format("%@", told),
              "Error Domain=Error Code=7 \"it broke\" UserInfo={\n    NSLocalizedDescription = \"it broke\";\n}");
    EXPECT_EQ(told, Error("Error", 7, {{"NSLocalizedDescription", "it broke"}}));
    EXPECT_NE(told, plain);
}

TEST(AssertionTest, logsCallsTheHandlerAndRaises) {
    std::vector<std::string> calls;
    setSystemLogHandler([&](std::string_view text) { calls.push_back("log: " + std::string(text)); });
    setAssertionHandler([&](std::string_view text) { calls.push_back("handler: " + std::string(text)); });
    assertThat(true, "nothing");
    try {
        assertThat(false, "[aCoder allowsKeyedCoding]");
        ADD_FAILURE() << "nothing was raised";
    } catch (const Exception& raised) {
        EXPECT_EQ(raised.name(), InternalInconsistencyException);
        EXPECT_EQ(raised.reason(), "[aCoder allowsKeyedCoding]");
        EXPECT_FALSE(raised.callStackSymbols().empty());
    }
    setSystemLogHandler({});
    setAssertionHandler({});
    EXPECT_EQ(calls, (std::vector<std::string>{"log: [aCoder allowsKeyedCoding]", "handler: [aCoder allowsKeyedCoding]"}));
}

TEST(SystemLogTest, writesOneLineAnEntry) {
    testing::internal::CaptureStderr();
    systemLog("two\nlines");
    const std::string line = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(
        testing::Matcher<std::string>(
            testing::MatchesRegex("[0-9]+-[0-9]+-[0-9]+ [0-9]+:[0-9]+:[0-9]+\\.[0-9]+ test_platform\\[[0-9]+\\] two\\\\nlines\n"))
            .Matches(line))
        << line;
}

}  // namespace
}  // namespace velkor::NS
