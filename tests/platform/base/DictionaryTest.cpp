#include "platform/base/Dictionary.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "platform/base/Exception.h"
#include "platform/base/Value.h"

namespace velkor::NS {
namespace {

std::string keyNumber(std::size_t number) { return (number % 2 ? "k" : "a key of some length ") + std::to_string(number); }

// Built before any object of the library is, and large enough to have an index.
[[gnu::init_priority(101)]] const Dictionary builtFirst = {
    {"a", 1},  {"b", 2},  {"c", 3},  {"d", 4},  {"e", 5},  {"f", 6},  {"g", 7},  {"h", 8},  {"i", 9},  {"j", 10},
    {"k", 11}, {"l", 12}, {"m", 13}, {"n", 14}, {"o", 15}, {"p", 16}, {"q", 17}, {"r", 18}, {"s", 19}, {"t", 20}};

TEST(DictionaryTest, isReadableThoughBuiltBeforeTheProgramStarts) {
    for (const auto& [key, value] : builtFirst) EXPECT_EQ(builtFirst[key], value) << key;
}

TEST(DictionaryTest, behavesLikeAListOfPairsUnderRandomChanges) {
    std::mt19937 random(42);
    Dictionary dictionary;
    std::vector<std::pair<std::string, std::int64_t>> model;
    std::vector<std::pair<Dictionary, std::size_t>> copies;
    for (int step = 0; step < 4000; ++step) {
        const std::string key = keyNumber(random() % 60);
        const auto place = std::find_if(model.begin(), model.end(), [&](const auto& member) { return member.first == key; });
        if (random() % 3 != 0) {
            dictionary.set(key, step);
            if (place != model.end()) {
                place->second = step;
            } else {
                model.emplace_back(key, step);
            }
        } else {
            dictionary.remove(key);
            if (place != model.end()) model.erase(place);
        }
        if (step % 97 == 0) copies.emplace_back(dictionary, model.size());
        ASSERT_EQ(dictionary.size(), model.size());
    }
    std::size_t position = 0;
    for (const auto& [key, value] : dictionary) {
        EXPECT_EQ(key, model[position].first);
        EXPECT_EQ(value, Value(model[position].second));
        EXPECT_EQ(dictionary[key], value);
        ++position;
    }
    for (const auto& [copy, size] : copies) EXPECT_EQ(copy.size(), size);
}

TEST(DictionaryTest, adoptsMembersAndLetsTheLastOfEqualKeysWin) {
    for (const std::size_t distinct : {3u, 40u}) {
        std::vector<Dictionary::Entry> members;
        for (std::size_t round = 0; round < 3; ++round) {
            for (std::size_t i = 0; i < distinct; ++i) members.emplace_back(SharedText(keyNumber(i)), Value(round * 1000 + i));
        }
        members.emplace_back(SharedText("last"), Value(7));
        const Dictionary dictionary = Dictionary::adopting(members);
        ASSERT_EQ(dictionary.size(), distinct + 1);
        for (std::size_t i = 0; i < distinct; ++i) {
            EXPECT_EQ((dictionary.begin() + i)->key(), keyNumber(i));
            EXPECT_EQ(dictionary[keyNumber(i)], Value(2000 + i));
        }
        EXPECT_EQ(dictionary["last"], Value(7));
        EXPECT_TRUE(members.front().value().isNil());
    }
}

TEST(DictionaryTest, comparesWithoutRegardToOrder) {
    EXPECT_EQ((Dictionary{{"a", 1}, {"b", Array{1.0}}}), (Dictionary{{"b", Array{1}}, {"a", true}}));
    EXPECT_NE((Dictionary{{"a", 1}}), (Dictionary{{"b", 1}}));
    EXPECT_EQ(Dictionary(), Dictionary({}));
}

TEST(DictionaryTest, refusesNilAndKeepsTheOldValue) {
    Dictionary dictionary{{"a", 1}};
    EXPECT_THROW(dictionary.set("a", Value()), Exception);
    EXPECT_EQ(dictionary["a"], Value(1));
    EXPECT_TRUE(dictionary["absent"].isNil());
}

TEST(ArrayTest, growsSharesAndAppendsItself) {
    Array array;
    for (int i = 0; i < 100; ++i) array.push_back(i);
    const Array copy = array;
    array.append(array);
    ASSERT_EQ(array.size(), 200u);
    EXPECT_EQ(array[199], Value(99));
    EXPECT_EQ(copy.size(), 100u);
    EXPECT_THROW(array.mutableAt(200), Exception);

    std::vector<Value> values{1, "a text that is longer than its cell", Array{2}};
    const Array adopted = Array::adopting(values);
    EXPECT_EQ(adopted, (Array{1, "a text that is longer than its cell", Array{2}}));
    EXPECT_TRUE(values[1].isNil());
}

TEST(SharedTextTest, isWrittenInPlace) {
    for (const std::size_t length : {0u, 5u, 14u, 15u, 100u, 1000u}) {
        TextBuffer buffer(1000);
        std::fill_n(buffer.data(), length, 'z');
        const Value value = std::move(buffer).finish(length);
        EXPECT_EQ(value, Value(std::string(length, 'z')));
    }
}

TEST(DataTest, copiesSharedBytesBeforeChangingThem) {
    Data data = Data::copyOf("abc");
    const Data copy = data;
    data.append(data.view());
    EXPECT_EQ(data.view(), "abcabc");
    EXPECT_EQ(copy.view(), "abc");
    EXPECT_EQ(data.take(), "abcabc");
    EXPECT_TRUE(data.empty());
    EXPECT_EQ(Data(copy).take(), "abc");
    EXPECT_EQ(copy.view(), "abc");
}

}  // namespace
}  // namespace velkor::NS
