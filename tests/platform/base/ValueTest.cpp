#include "platform/base/Value.h"

#include <gtest/gtest.h>

#include <limits>
#include <thread>
#include <vector>

#include "platform/base/Exception.h"
#include "platform/base/Format.h"

namespace velkor::NS {
namespace {

struct Thing : Object {
    explicit Thing(int& count) : m_count(count) { ++m_count; }
    ~Thing() override { --m_count; }
    std::string_view className() const noexcept override { return "Thing"; }
    std::string description() const override { return "a thing"; }
    int& m_count;
};

TEST(ValueTest, holdsTextsOfEveryLengthAroundTheInlineLimit) {
    for (std::size_t length = 0; length < 40; ++length) {
        std::string text;
        for (std::size_t i = 0; i < length; ++i) text += static_cast<char>('a' + i % 26);
        const Value value(text);
        Value copy = value;
        EXPECT_EQ(copy.asString(), text);
        EXPECT_EQ(copy, value);
        EXPECT_NE(copy, Value(text + "x"));
        if (length != 0) {
            std::string other = text;
            other.back() = '!';
            EXPECT_NE(copy, Value(other));
        }
        const Value moved = std::move(copy);
        EXPECT_EQ(moved.asString(), text);
        EXPECT_EQ(moved.sharedText().view(), text);
    }
}

TEST(ValueTest, comparesNumbersByValueAcrossKinds) {
    const std::int64_t big = (std::int64_t{1} << 53) + 1;
    const struct {
        Value a, b;
        bool equal;
    } cases[] = {
        {1, 1.0, true},
        {true, 1, true},
        {1, 2, false},
        {big, static_cast<double>(big), false},  // the double is rounded
        {Value::decimal("5.00"), 5, true},
        {Value::decimal("5e2"), 500, true},
        {Value::decimal("-0"), 0, true},
        {Value::decimal("0.1"), 0.1, true},
        {Value::decimal("12345678901234567890.05"), Value::decimal("12345678901234567890.050"), true},
        {Value::decimal("12345678901234567890.05"), Value::decimal("12345678901234567890.06"), false},
        {Value::decimal("18446744073709551615"), std::numeric_limits<std::uint64_t>::max(), true},
        {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::quiet_NaN(), true},
        {1, "1", false},
        {0, false, true},
        {Value(), Null(), false},
    };
    for (const auto& [a, b, equal] : cases) EXPECT_EQ(a == b, equal) << a.description() << " and " << b.description();
}

TEST(ValueTest, readsNumbersOnlyWhereTheyFit) {
    EXPECT_EQ(Value(2.0).asInteger(), 2);
    EXPECT_EQ(Value(2.5).asInteger(), std::nullopt);
    EXPECT_EQ(Value(1e19).asInteger(), std::nullopt);
    EXPECT_EQ(Value(-9223372036854775808.0).asInteger(), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(Value::decimal("-9223372036854775808").asInteger(), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(Value::decimal("9223372036854775808").asInteger(), std::nullopt);
    EXPECT_EQ(Value::decimal("1e999999999").asInteger(), std::nullopt);
    EXPECT_EQ(Value::decimal("1e+-0").asInteger(), std::nullopt);
    EXPECT_EQ(Value::decimal("0.5").asDouble(), 0.5);
    EXPECT_EQ(Value(0.25).asBoolean(), true);
    EXPECT_EQ(Value("1").asInteger(), std::nullopt);
    EXPECT_EQ(Value(std::numeric_limits<std::uint64_t>::max()).asDecimal(), "18446744073709551615");
}

TEST(ValueTest, ownsObjectsAndReleasesThem) {
    int alive = 0;
    {
        Value value = std::make_shared<Thing>(alive);
        const Value copy = value;
        value = Value("text");
        EXPECT_EQ(alive, 1);
        EXPECT_TRUE(copy.as<Thing>());
        EXPECT_EQ(copy.className(), "Thing");
    }
    EXPECT_EQ(alive, 0);
    EXPECT_TRUE(Value(std::shared_ptr<Thing>()).isNil());
    EXPECT_TRUE(Value(static_cast<const char*>(nullptr)).isNil());
}

TEST(ValueTest, changingACollectionLeavesItsCopies) {
    Value value = Dictionary{{"list", Array{1, 2}}};
    const Value copy = value;
    value.mutableDictionary().set("more", 3);
    Value list = value.asDictionary()->operator[]("list");
    list.mutableArray().mutableAt(0) = 9;
    EXPECT_EQ(copy, (Value(Dictionary{{"list", Array{1, 2}}})));
    EXPECT_EQ(list, (Value(Array{9, 2})));
    EXPECT_EQ(value.asDictionary()->size(), 2u);
    value.mutableArray().push_back("now an array");
    EXPECT_EQ(value.kind(), Value::Kind::array);
}

TEST(ValueTest, isCopiedBySeveralThreads) {
    const Value value = Array{std::string(100, 'x'), Dictionary{{"a key that is not inline", Data::copyOf("bytes")}}};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([value] {
            for (int round = 0; round < 2000; ++round) {
                Value copy = value;
                copy.mutableArray().push_back(round);
                ASSERT_EQ(value.asArray()->size(), 2u);
            }
        });
    }
    for (auto& thread : threads) thread.join();
}

TEST(ValueTest, describesItselfAsThePlatformDoes) {
    const Value nested = Dictionary{{"name", "two words"}, {"list", Array{1, "a", true}}, {"none", Null()}};
    EXPECT_EQ(nested.description(),
              "{\n    name = \"two words\";\n    list = (\n        1,\n        a,\n        1\n    );\n    none = <null>;\n}");
    EXPECT_EQ(Value(Array()).description(), "(\n)");
    EXPECT_EQ(Value(Data::copyOf("hello")).description(), "<68656c6c 6f>");
    EXPECT_EQ(Value(Date(1362477600)).description(), "2013-03-05 10:00:00 +0000");
    EXPECT_EQ(Value(Date(-0.5)).description(), "1969-12-31 23:59:59 +0000");
    EXPECT_EQ(Value(1.0).description(), "1");
    EXPECT_EQ(Value(0.1).description(), "0.1");
    EXPECT_EQ(Value().description(), "(null)");
}

}  // namespace
}  // namespace velkor::NS
