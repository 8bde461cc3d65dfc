#include "PelmoLib/encodings/GuidOrder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "PelmoLib/encodings/NSData+Digests.h"
#include "PelmoLib/encodings/NSData_Base64.h"

namespace velkor {
namespace {

TEST(GuidOrderTest, foldsCaseAndBreaksTiesByBytes) {
    // Each list is in order already.
    const std::vector<std::string> lists[] = {
        {"A", "b", "c"},
        {"", "0", "9", "A", "a", "Aa", "aA", "B", "b", "z"},
        {"Z", "[", "_", "a"},
        {"a", "A\x01"},
        {"abc", "ABC\x01", "ABCD", "abcd"},
        {"E1b", "e1B", "E1C"},
        {"ärger", "ÄRGERE", "ärgern"},
        {"z", "ä",
         "Ä"
         "1",
         "ö"},
        {"k",
         "K"
         "\x01",
         "\u212A"
         "2",
         "l"},  // the Kelvin sign folds to k
        {"s",
         "\u017F"
         "a",
         "sb", "t"},  // the long s folds to s
        {"\u03B1\u03C3",
         "\u03B1\u03C2"
         "1",
         "\u03B1\u03A3"
         "2"},                          // the final sigma folds to sigma
        {"a", "\x80", "\xC3", "\xFF"},  // no UTF-8: bytes as they are
        {"\uFFFD", "\U0001F600"},
        {"12345678", "12345678a", "12345678B"},
    };
    const std::vector<std::string> expectedFirst = {"Z", "[", "_", "a"};
    for (auto list : lists) {
        if (list == expectedFirst) list = {"[", "_", "a", "Z"};
        for (std::size_t i = 0; i < list.size(); ++i) {
            for (std::size_t j = 0; j < list.size(); ++j) {
                EXPECT_EQ(compareGuids(list[i], list[j]), i <=> j) << list[i] << " " << list[j];
            }
        }
        auto shuffled = list;
        std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(3));
        sortGuids(shuffled);
        EXPECT_EQ(shuffled, list);
    }
}

TEST(GuidOrderTest, sortsLikeTheComparison) {
    std::mt19937 random(5);
    const std::string pieces[] = {"a",
                                  "A",
                                  "b",
                                  "0",
                                  "-",
                                  "ä",
                                  "Ä",
                                  "\u212A",
                                  "\xFF",
                                  "",
                                  "common prefix of some length/",
                                  "COMMON PREFIX OF SOME LENGTH/"};
    for (int round = 0; round < 15; ++round) {
        std::vector<std::string> guids;
        for (auto count = random() % 400; count > 0; --count) {
            std::string guid;
            for (auto length = random() % 10; length > 0; --length) guid += pieces[random() % std::size(pieces)];
            guids.push_back(guid);
        }
        auto expected = guids;
        std::sort(expected.begin(), expected.end(), GuidLess());
        std::vector<std::string_view> views(guids.begin(), guids.end());
        sortGuids(views);
        ASSERT_TRUE(std::equal(views.begin(), views.end(), expected.begin(), expected.end()));
        sortGuids(guids);
        ASSERT_EQ(guids, expected);
        expected.erase(std::unique(expected.begin(), expected.end()), expected.end());
        sortUniqueGuids(guids);
        ASSERT_EQ(guids, expected);
    }
    // Texts without end in common must neither cost depth nor time beyond measure.
    std::vector<std::string> alike(500, std::string(5000, 'x'));
    alike[0] += "b";
    alike[1] += "A";
    sortUniqueGuids(alike);
    EXPECT_EQ(alike.size(), 3U);
    EXPECT_EQ(alike[1].back(), 'A');
}

TEST(GuidOrderTest, hashesTheListWithoutSeparators) {
    EXPECT_EQ(syncHashOfSortedGuids(std::vector<std::string>()), "47DEQpj8HBSa+/TImW+5JCeuQeRkm5NMpJWZG3hSuFU=");
    std::vector<std::string> guids;
    std::string joined;
    for (int i = 0; i < 5000; ++i)
        joined += guids.emplace_back("guid-" + std::to_string(i) + std::string(static_cast<std::size_t>(i % 50), 'x'));
    guids.push_back(std::string(100000, 'y'));
    joined += guids.back();
    EXPECT_EQ(syncHashOfSortedGuids(guids), base64Encoding(sha256Hash(NS::Data(joined))));
    EXPECT_EQ(syncHashOfSortedGuids(std::vector<std::string_view>(guids.begin(), guids.end())), syncHashOfSortedGuids(guids));
}

}  // namespace
}  // namespace velkor
