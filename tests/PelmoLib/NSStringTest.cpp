#include <gtest/gtest.h>

#include <algorithm>

#include <set>

#include "PelmoLib/encodings/NSString+URLEncode.h"
#include "PelmoLib/encodings/NSString+UUID.h"

namespace velkor {
namespace {

TEST(NSStringUUIDTest, makesRandomUUIDsInCanonicalForm) {
    // h: a digit, v: one of 8, 9, A and B; all else stands for itself.
    constexpr std::string_view form = "hhhhhhhh-hhhh-4hhh-vhhh-hhhhhhhhhhhh";
    auto fits = [&](std::string_view uuid) {
        return std::equal(uuid.begin(), uuid.end(), form.begin(), form.end(), [](char c, char f) {
            if (f == 'h') return std::string_view("0123456789ABCDEF").find(c) != std::string_view::npos;
            if (f == 'v') return std::string_view("89AB").find(c) != std::string_view::npos;
            return c == f;
        });
    };
    std::set<std::string> seen;
    for (int i = 0; i < 1000; ++i) {
        const std::string uuid = stringWithUUID();
        EXPECT_TRUE(fits(uuid)) << uuid;
        EXPECT_TRUE(seen.insert(uuid).second);
    }
}

TEST(NSStringUUIDTest, countsGedcomIds) {
    EXPECT_EQ(stringWithGedcomId(), "0");
    EXPECT_EQ(stringWithGedcomId(), "1");
}

TEST(NSStringURLEncodeTest, escapesThePairsOneAfterTheOther) {
    constexpr std::pair<std::string_view, std::string_view> encoded[] = {
        {";/?:@&=+$,[]#!'()* ^~`<>",
         "%253B%252F%253F%253A%2540%2526%253D%252B%2524%252C%255B%255D%2523%2521%2527%2528%2529%252A%2520%255E%257E%2560%253C%"
         "253E"},
        {"100%", "100%25"},
        {"%3B", "%253B"},
        {"azAZ09-_.\"{|}\\ä\n", "azAZ09-_.\"{|}\\ä\n"},
    };
    for (const auto& [text, escaped] : encoded) EXPECT_EQ(urlEncode(text), escaped);
    constexpr std::pair<std::string_view, std::string_view> decoded[] = {
        {"%3B%2F%3F%3A%40%26%3D%2B%24%2C%5B%5D%23%21%27%28%29%2A%20%5E%7E%60%3C%3E%25", ";/?:@&=+$,[]#!'()* ^~`<>%"},
        {"%253B%3b%3", "%3B%3b%3"},
        {"%252525", "%2525"},
        {"%%3A%2", "%:%2"},
        {"%C3%A4%00%", "%C3%A4%00%"},
    };
    for (const auto& [escaped, text] : decoded) EXPECT_EQ(urlDecode(escaped), text);
}

TEST(NSStringURLEncodeTest, escapesSimply) {
    const struct {
        std::string_view text, escaped;
    } cases[] = {
        {"azAZ09-_.!~*'();/?:@&=+$,", "azAZ09-_.!~*'();/?:@&=+$,"},
        {" \"#%<>[]^`{|}\\\x7F", "%20%22%23%25%3C%3E%5B%5D%5E%60%7B%7C%7D%5C%7F"},
        {"ä€😀", "%C3%A4%E2%82%AC%F0%9F%98%80"},
        {"\n", "%0A"},
    };
    for (const auto& [text, escaped] : cases) {
        EXPECT_EQ(simpleUrlEncode(text), escaped);
        EXPECT_EQ(simpleUrlDecode(escaped), text);
    }
    EXPECT_EQ(simpleUrlDecode("%c3%a4+"), "ä+");
    for (const std::string_view bad : {"%", "%4", "%4G", "%G4", "a%%41", "%C3", "%FF"})
        EXPECT_EQ(simpleUrlDecode(bad), std::nullopt) << bad;
}

}  // namespace
}  // namespace velkor
