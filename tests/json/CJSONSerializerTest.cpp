#include "json/CJSONSerializer.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <random>

#include "json/CJSONDataSerializer.h"
#include "json/CJSONDeserializer.h"
#include "json/CSerializedJSONData.h"
#include "json/JSONRepresentable.h"
#include "json/JSONWriter.h"
#include "platform/base/LocalTime.h"
#include "platform/base/UTF8.h"

namespace velkor {
namespace {

using NS::Array;
using NS::Data;
using NS::Dictionary;
using NS::Null;
using NS::Value;

struct Plain : NS::Object {
    std::string_view className() const noexcept override { return "Plain"; }
};

struct Speaking : NS::Object, JSONRepresentable {
    explicit Speaking(std::optional<Data> json) : m_json(std::move(json)) {}
    std::optional<Data> objectAsJson() override { return m_json; }
    std::string description() const override { return "<speaking>"; }
    std::optional<Data> m_json;
};

void setTimeZone(const char* zone) {
    ::setenv("TZ", zone, 1);
    NS::localTimeZoneChanged();
}

TEST(CJSONSerializerTest, writesEachKindByItsRule) {
    setTimeZone("Europe/Berlin");
    const struct {
        Value value;
        std::string_view json;
    } cases[] = {
        {std::make_shared<Speaking>(Data::copyOf("{ \"own\": text }")), "{ \"own\": text }"},
        {NS::Date(1299254709.999), "\"2011-03-04T17:05:09+0100\""},
        {NS::Date(-0.5), "\"1970-01-01T00:59:59+0100\""},
        {Null(), "null"},
        {true, "true"},
        {false, "false"},
        {1, "1"},
        {std::numeric_limits<std::int64_t>::min(), "-9223372036854775808"},
        {std::numeric_limits<std::uint64_t>::max(), "18446744073709551615"},
        {Value::decimal("-12345678901234567890.0500"), "-12345678901234567890.0500"},
        {Value::decimal("+1"), "1"},
        {Value::decimal("-007.50"), "-75e-1"},
        {Value::decimal("12."), "12"},
        {Value::decimal(".0"), "0"},
        {1.0, "1"},
        {-0.0, "-0"},
        {0.1, "0.1"},
        {1e300, "1e300"},
        {1.5e-7, "1.5e-07"},
        {"", "\"\""},
        {"a/b \"\\ \b\f\n\r\t \x01\x1F ä€😀 \x7F", "\"a/b \\\"\\\\ \\b\\f\\n\\r\\t \\u0001\\u001F ä€😀 \x7F\""},
        {std::string_view("\0", 1), "\"\\u0000\""},
        {Array(), "[]"},
        {Dictionary(), "{}"},
        {Array{1, Array{}, Array{2, "x"}}, "[1,[],[2,\"x\"]]"},
        {Dictionary{{"z", 1}, {"a\n", Dictionary{{"k", Array{true}}}}}, "{\"z\":1,\"a\\n\":{\"k\":[true]}}"},
        {Data::copyOf("bytes \"ä\""), "\"bytes \\\"ä\\\"\""},
        {std::make_shared<CSerializedJSONData>(Data::copyOf("[ 1 ]")), "[ 1 ]"},
    };
    for (const auto& [value, json] : cases) {
        std::optional<NS::Error> error;
        EXPECT_EQ(CJSONSerializer::serializer().serializeObject(value, &error), json);
        EXPECT_FALSE(error);
        const Dictionary outer{{"k", Array{value, value}}};
        EXPECT_EQ(CJSONSerializer::serializer().serializeDictionary(outer, &error),
                  "{\"k\":[" + std::string(json) + "," + std::string(json) + "]}");
    }
    EXPECT_EQ(CJSONDataSerializer::serializer().serializeArray(Array{1}, nullptr)->view(), "[1]");
}

TEST(CJSONSerializerTest, refusesWhatItCannotWrite) {
    const struct {
        Value value;
        std::string_view text;
    } cases[] = {
        {Value(), "Cannot serialize data of type 'nil'"},
        {std::make_shared<Plain>(), "Cannot serialize data of type 'Plain'"},
        {std::make_shared<Speaking>(std::nullopt), "Could not serialize object '<speaking>'"},
        {std::numeric_limits<double>::quiet_NaN(), "Could not serialize object 'nan'"},
        {-std::numeric_limits<double>::infinity(), "Could not serialize object '-inf'"},
        {"\xFF", "Could not serialize object '\xFF'"},
        {NS::Date(1e18), ""},
        {Data::copyOf("\xC3"), ""},
        {Value::decimal("."), "Could not serialize object '.'"},
        {Value::decimal("1,5"), "Could not serialize object '1,5'"},
        {Dictionary{{"\xFF", 1}}, ""},
    };
    for (const auto& [value, text] : cases) {
        std::optional<NS::Error> error;
        EXPECT_FALSE(CJSONSerializer::serializer().serializeObject(value, &error)) << text;
        ASSERT_TRUE(error);
        EXPECT_EQ(error->domain(), "TODO_DOMAIN");
        EXPECT_EQ(error->code(), -1);
        EXPECT_EQ(text.empty() ? text : error->localizedDescription(), text);
        if (value.isNil()) continue;
        const Array array{1, value};
        EXPECT_FALSE(CJSONDataSerializer::serializer().serializeArray(array, &error)) << text;
        EXPECT_EQ(error->localizedDescription(), "Could not serialize object '" + array.description() + "'");
        EXPECT_FALSE(CJSONDataSerializer::serializer().serializeDictionary(Dictionary{{"a", value}}, nullptr));
    }
    Value deep = 1;
    for (int i = 0; i < 513; ++i) deep = Array{deep};
    EXPECT_FALSE(CJSONSerializer::serializer().serializeObject(deep, nullptr));
    EXPECT_TRUE(CJSONSerializer::serializer().serializeObject((*deep.asArray())[0], nullptr));
}

TEST(CJSONSerializerTest, escapesWhereverTheCharacterLies) {
    for (std::size_t length = 0; length < 150; ++length) {
        const std::string plain(length, 'x');
        EXPECT_EQ(CJSONSerializer::serializer().serializeObject(plain + "\"" + plain, nullptr),
                  '"' + plain + "\\\"" + plain + '"');
        EXPECT_EQ(CJSONSerializer::serializer().serializeObject(plain + "ä\x02" + plain, nullptr),
                  '"' + plain + "ä\\u0002" + plain + '"');
        EXPECT_FALSE(CJSONSerializer::serializer().serializeObject(plain + "\xFF" + plain, nullptr));
    }
}

Value randomValue(std::mt19937_64& random, int depth) {
    switch (random() % (depth > 4 ? 7 : 9)) {
        case 0:
            return Null();
        case 1:
            return random() % 2 == 0;
        case 2:
            return static_cast<std::int64_t>(random() >> random() % 64);
        case 3: {
            const auto bits = random();
            double number;
            std::memcpy(&number, &bits, sizeof number);
            return number - number == 0 ? number : 0.5;
        }
        case 4:
            return static_cast<double>(random() % 1000000) / 1000;
        case 5:
            return -static_cast<std::int64_t>(random() >> 1);
        case 6: {
            std::string text;
            for (auto i = random() % 40; i > 0; --i) {
                const char32_t character = static_cast<char32_t>(random() % 0x110000) >> random() % 15;
                NS::appendUTF8(text, character >= 0xD800 && character < 0xE000 ? U'?' : character);
            }
            return text;
        }
        case 7: {
            Array array;
            for (auto i = random() % 6; i > 0; --i) array.push_back(randomValue(random, depth + 1));
            return array;
        }
        default: {
            Dictionary dictionary;
            for (auto i = random() % 25; i > 0; --i)
                dictionary.set("a key with number " + std::to_string(i), randomValue(random, depth + 1));
            return dictionary;
        }
    }
}

TEST(CJSONSerializerTest, whatIsWrittenReadsBackEqual) {
    std::mt19937_64 random(20130305);
    for (int i = 0; i < 3000; ++i) {
        const Value value = randomValue(random, 0);
        const auto json = CJSONSerializer::serializer().serializeObject(value, nullptr);
        ASSERT_TRUE(json);
        std::optional<NS::Error> error;
        const Value again = CJSONDeserializer::deserializer().deserialize(*json, &error);
        ASSERT_FALSE(error) << *json << error->description();
        ASSERT_EQ(again, value) << *json;
        ASSERT_EQ(CJSONSerializer::serializer().serializeObject(again, nullptr), json);
    }
}

TEST(JSONWriterTest, streamsPiecesIntoTheCallersText) {
    std::string out = "before ";
    JSONWriter writer(out);
    writer.beginObject();
    writer.key("a");
    writer.beginArray();
    writer.number(1);
    writer.number(std::uint64_t{1} << 63);
    writer.number(2.5);
    writer.null();
    writer.boolean(true);
    writer.beginObject();
    writer.endObject();
    writer.endArray();
    writer.member("b", "x");
    writer.key("c");
    writer.raw("[raw]");
    writer.key("d");
    writer.plainString("QUJD");
    writer.endObject();
    EXPECT_TRUE(writer.ok());
    EXPECT_EQ(out, R"(before {"a":[1,9223372036854775808,2.5,null,true,{}],"b":"x","c":[raw],"d":"QUJD"})");
    writer.string("\xFF");
    EXPECT_FALSE(writer.ok());
    EXPECT_FALSE(writer.failure().empty());
}

}  // namespace
}  // namespace velkor
