#include "json/JSONCursor.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "json/CJSONDeserializer.h"

namespace velkor {
namespace {

/// The value at the cursor, read step by step.
NS::Value read(JSONCursor& cursor, int depth = 0) {
    std::string_view text;
    if (depth > 2) {
        NS::Value value;
        cursor.value(value);
        return value;
    }
    switch (cursor.peek()) {
        case '{': {
            NS::Dictionary dictionary;
            for (cursor.enterObject(); cursor.nextMember(text);) {
                const std::string key(text);
                NS::Value value = read(cursor, depth + 1);
                if (!cursor.ok()) return {};
                dictionary.set(key, std::move(value));
            }
            return dictionary;
        }
        case '[': {
            NS::Array array;
            for (cursor.enterArray(); cursor.nextElement();) {
                array.push_back(read(cursor, depth + 1));
                if (!cursor.ok()) return {};
            }
            return array;
        }
        case '"':
            return cursor.string(text) ? NS::Value(text) : NS::Value();
        default: {
            NS::Value value;
            cursor.value(value);
            return value;
        }
    }
}

TEST(JSONCursorTest, seesWhatTheDeserializerSees) {
    const std::vector<std::string> texts{
        "{}",
        "[]",
        "[[]]",
        "{\"a\":{}}",
        " { \"a\" : [ 1 , 2.5 , -3e2 , \"x\" , true , false , null ] , \"b\" : \"y\" } ",
        "\"text\"",
        "\"esc\\\"aped\\u00fc\\n\"",
        "{\"k\\u0065y\":1,\"ü\":\"€🙂\"}",
        "12",
        "true",
        "[1,[2,[3,[4,[5]]]]]",
        "\xEF\xBB\xBF{\"a\":1}",
        "[123456789012345678901234567890.5]",
        "{\"a\":1,\"a\":2}",
        // None of these is JSON.
        "",
        " ",
        "{",
        "[",
        "{\"a\"",
        "{\"a\":",
        "{\"a\":1",
        "{\"a\":1,",
        "{\"a\":1,}",
        "[1,]",
        "[,1]",
        "[1 2]",
        "{,}",
        "{a:1}",
        "{\"a\" 1}",
        "[1]]",
        "{}x",
        "tru",
        "[nul]",
        "\"open",
        "\"bad\\x\"",
        "\"\xff\"",
        "[\"\x01\"]",
        "-",
        "[1e]",
        "[--1]",
        "{\"a\":}",
        "[}",
        "{]",
        "[1}",
        "{\"a\":[1}",
        "[\"a\",\"b\" \"c\"]",
    };
    for (const auto& text : texts) {
        const NS::Value expected = CJSONDeserializer::deserializer().deserialize(text, nullptr);
        JSONCursor reader(text), skipper(text);
        const NS::Value got = read(reader);
        const bool readAll = reader.ok() && reader.end();
        EXPECT_EQ(readAll, !expected.isNil()) << text;
        if (readAll) {
            EXPECT_EQ(got, expected) << text;
        }
        const bool skipped = skipper.skip() && skipper.end();
        EXPECT_EQ(skipped, readAll) << text;
    }
}

TEST(JSONCursorTest, leavesStringsWhereTheyAre) {
    const std::string text = R"({"plain":"here","other":"esc\"aped"})";
    JSONCursor cursor(text);
    std::string_view key, value;
    ASSERT_TRUE(cursor.enterObject() && cursor.nextMember(key) && cursor.string(value));
    EXPECT_EQ(key.data(), text.data() + 2);
    EXPECT_EQ(value.data(), text.data() + 10);
    std::string_view second;
    ASSERT_TRUE(cursor.nextMember(key) && cursor.string(second));
    EXPECT_EQ(second, "esc\"aped");
    EXPECT_FALSE(cursor.nextMember(key));
    EXPECT_TRUE(cursor.end());
}

TEST(JSONCursorTest, aFailureLasts) {
    JSONCursor cursor("[1,x,2]");
    EXPECT_TRUE(cursor.enterArray() && cursor.nextElement() && cursor.skip() && cursor.nextElement());
    EXPECT_FALSE(cursor.skip());
    EXPECT_FALSE(cursor.nextElement());
    EXPECT_FALSE(cursor.enterObject());
    EXPECT_FALSE(cursor.end());
}

TEST(JSONCursorTest, skipsAsDeepAsTheDeserializerReads) {
    for (const std::size_t depth : {512, 513, 100'000}) {
        const std::string text = std::string(depth, '[') + std::string(depth, ']');
        JSONCursor cursor(text);
        EXPECT_EQ(cursor.skip() && cursor.end(), !CJSONDeserializer::deserializer().deserialize(text, nullptr).isNil()) << depth;
        EXPECT_EQ(cursor.ok(), depth == 512);
    }
}

}  // namespace
}  // namespace velkor
