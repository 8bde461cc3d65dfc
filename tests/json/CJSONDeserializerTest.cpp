#include "json/CJSONDeserializer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "json/CJSONScanner.h"
#include "platform/base/UTF8.h"

namespace velkor {
namespace {

using NS::Array;
using NS::Dictionary;
using NS::Null;
using NS::Value;

Value read(std::string_view json) {
    std::optional<NS::Error> error;
    Value value = CJSONDeserializer::deserializer().deserialize(json, &error);
    EXPECT_EQ(value.isNil(), error.has_value()) << json;
    return value;
}

/// The code of the error that the text gives, or 0.
std::int64_t codeFor(std::string_view json) {
    std::optional<NS::Error> error;
    CJSONDeserializer::deserializer().deserialize(json, &error);
    return error ? error->code() : 0;
}

TEST(CJSONDeserializerTest, readsEveryKindOfValue) {
    const struct {
        std::string_view json;
        Value value;
        Value::Kind kind;
    } cases[] = {
        {"{}", Dictionary(), Value::Kind::dictionary},
        {" [ ] ", Array(), Value::Kind::array},
        {"\t\r\n null \n", Null(), Value::Kind::null},
        {"true", true, Value::Kind::boolean},
        {"false", false, Value::Kind::boolean},
        {"\"\"", "", Value::Kind::string},
        {"0", 0, Value::Kind::integer},
        {"-17", -17, Value::Kind::integer},
        {"1.5", 1.5, Value::Kind::real},
        {"[1,\"a\",[null],{\"b\":[]}]", Array{1, "a", Array{Null()}, Dictionary{{"b", Array()}}}, Value::Kind::array},
        {"{ \"a\" : 1 , \"a longer key than fits\" : { \"a longer key than fits\" : false } }",
         Dictionary{{"a", 1}, {"a longer key than fits", Dictionary{{"a longer key than fits", false}}}},
         Value::Kind::dictionary},
    };
    for (const auto& [json, value, kind] : cases) {
        const Value result = read(json);
        EXPECT_EQ(result, value) << json;
        EXPECT_EQ(result.kind(), kind) << json;
    }
}

TEST(CJSONDeserializerTest, readsNumbersWithoutLosingDigits) {
    const struct {
        std::string_view json;
        Value value;
        Value::Kind kind;
    } cases[] = {
        {"9223372036854775807", std::numeric_limits<std::int64_t>::max(), Value::Kind::integer},
        {"-9223372036854775808", std::numeric_limits<std::int64_t>::min(), Value::Kind::integer},
        {"9223372036854775808", Value::decimal("9223372036854775808"), Value::Kind::decimal},
        {"18446744073709551615", std::numeric_limits<std::uint64_t>::max(), Value::Kind::decimal},
        {"18446744073709551616", 18446744073709551616.0, Value::Kind::real},
        {"18446744073709551617", Value::decimal("18446744073709551617"), Value::Kind::decimal},
        {"-9223372036854775809", Value::decimal("-9223372036854775809"), Value::Kind::decimal},
        {"123456789012345678901234567890", Value::decimal("123456789012345678901234567890"), Value::Kind::decimal},
        {"0.12345678901234567", Value::decimal("0.12345678901234567"), Value::Kind::decimal},
        {"0.10000000000000001", Value::decimal("0.10000000000000001"), Value::Kind::decimal},
        {"-12345678901234567890.0500", Value::decimal("-12345678901234567890.0500"), Value::Kind::decimal},
        {"0.1000000000000000000", 0.1, Value::Kind::real},
        {"999999999999999999", 999999999999999999, Value::Kind::integer},
        {"-0", -0.0, Value::Kind::real},
        {"0.1", 0.1, Value::Kind::real},
        {"2E+3", 2000.0, Value::Kind::real},
        {"-2e-3", -0.002, Value::Kind::real},
        {"5e-324", 5e-324, Value::Kind::real},
        {"1e-400", 0.0, Value::Kind::real},
        {"0.00e999999999999999999999", 0.0, Value::Kind::real},
        {"1e-999999999999999999999", 0.0, Value::Kind::real},
        {"0.30000000000000004", 0.30000000000000004, Value::Kind::real},
        {"1.7976931348623157e308", std::numeric_limits<double>::max(), Value::Kind::real},
    };
    for (const auto& [json, value, kind] : cases) {
        const Value result = read(json);
        EXPECT_EQ(result.kind(), kind) << json;
        EXPECT_EQ(result, value) << json;
        if (kind == Value::Kind::decimal) {
            EXPECT_EQ(result.asDecimal(), json);
        }
        EXPECT_EQ(std::signbit(*result.asDouble()), json.front() == '-') << json;
    }
    for (const std::string_view json :
         {"-", "01", "-01", "1.", "1.e5", "1e", "1e+", "1.2.3", "--1", "1-2", "-.5", "1e400", "-1e400", "1+", "0x10"}) {
        EXPECT_TRUE(codeFor(json) == -14 || (json == "0x10" && codeFor(json) == -18)) << json << ": " << codeFor(json);
    }
}

TEST(CJSONDeserializerTest, reportsEachFaultByItsCodeAndText) {
    const struct {
        std::string_view json;
        std::int64_t code;
        std::string_view text;
    } cases[] = {
        {"{a:1}", -2, "Could not scan dictionary. Failed to scan a key."},
        {"{\"a\":1,}", -2, "Could not scan dictionary. Failed to scan a key."},
        {"{\"a\" 1}", -3, "Could not scan dictionary. Key was not terminated with a ':' character."},
        {"{\"a\":}", -4, "Could not scan dictionary. Failed to scan a value."},
        {"{\"a\":nul}", -4, "Could not scan dictionary. Failed to scan a value."},
        {"{\"a\":1 \"b\":2}", -5, "Could not scan dictionary. Key value pairs not delimited with a ',' character."},
        {"{\"a\":1", -6, "Could not scan dictionary. Dictionary not terminated by a '}' character."},
        {"[1,]", -8, "Could not scan array. Could not scan a value."},
        {"[tru]", -8, "Could not scan array. Could not scan a value."},
        {"[1,2", -10, "Could not scan array. Array not terminated by a ']' character."},
        {"[1 2]", -9, "Could not scan array. Array not terminated by a ']' character."},
        {"[1}", -9, "Could not scan array. Array not terminated by a ']' character."},
        {"[[1,2]", -10, "Could not scan array. Array not terminated by a ']' character."},
        {"\"\\u12G4\"", -12, "Could not scan string constant. Unicode character could not be decoded."},
        {"\"\\u12", -15, "Could not scan string constant. No terminating double quote character."},
        {"\"\\u-123\"", -12, "Could not scan string constant. Unicode character could not be decoded."},
        {"\"\\ud800\"", -12, "Could not scan string constant. Unicode character could not be decoded."},
        {"\"\\ud800\\u0041\"", -12, "Could not scan string constant. Unicode character could not be decoded."},
        {"\"\\ud800x\"", -12, "Could not scan string constant. Unicode character could not be decoded."},
        {"\"\\udc00\\ud800\"", -12, "Could not scan string constant. Unicode character could not be decoded."},
        {"[\"\\q\"]", -13, "Could not scan string constant. Unknown escape code."},
        {"{\"a", -15, "Could not scan string constant. No terminating double quote character."},
        {"\"a\\\"", -15, "Could not scan string constant. No terminating double quote character."},
        {"\"a\\", -15, "Could not scan string constant. No terminating double quote character."},
        {"[-]", -14, "Could not scan number constant."},
        {"   ", -16, "Could not scan value. The text is no JSON value."},
        {"nothing", -16, "Could not scan value. The text is no JSON value."},
        {"1 2", -18, "Could not scan value. Other text follows the value."},
        {"{}]", -18, "Could not scan value. Other text follows the value."},
    };
    for (const auto& [json, code, text] : cases) {
        std::optional<NS::Error> error;
        EXPECT_TRUE(CJSONDeserializer::deserializer().deserialize(json, &error).isNil()) << json;
        ASSERT_TRUE(error) << json;
        EXPECT_EQ(error->domain(), "CJSONScannerErrorDomain");
        EXPECT_EQ(error->code(), code) << json;
        EXPECT_EQ(error->localizedDescription(), text) << json;
    }
}

TEST(CJSONDeserializerTest, wantsTheTopLevelKindThatWasAskedFor) {
    std::optional<NS::Error> error;
    EXPECT_FALSE(dictionaryWithJSONData(std::string_view("[1]"), &error));
    EXPECT_EQ(error->code(), -1);
    EXPECT_EQ(error->localizedDescription(), "Could not scan dictionary. Dictionary that does not start with '{' character.");
    EXPECT_FALSE(CJSONDeserializer::deserializer().deserializeAsArray("{}", &error));
    EXPECT_EQ(error->code(), -7);
    EXPECT_EQ(error->localizedDescription(), "Could not scan array. Array not started by a '{' character.");
    EXPECT_EQ(dictionaryWithJSONData(NS::Data::copyOf("{\"a\":1}"), nullptr), (Dictionary{{"a", 1}}));
    EXPECT_EQ(CJSONDeserializer::deserializer().deserializeAsArray("[2]", nullptr), (Array{2}));

    EXPECT_FALSE(dictionaryWithJSONData(NS::Data(), &error));
    EXPECT_EQ(error->domain(), "CJSONDeserializerErrorDomain");
    EXPECT_EQ(error->code(), -1);
}

TEST(CJSONDeserializerTest, findsTheEndOfAStringWhereverItLies) {
    // The scan takes many bytes at a time: what it must stop at is tried at each place.
    for (std::size_t length = 0; length < 150; ++length) {
        std::string plain;
        for (std::size_t i = 0; i < length; ++i) plain += static_cast<char>('a' + i % 26);
        EXPECT_EQ(read('"' + plain + '"'), Value(plain));
        EXPECT_EQ(codeFor('"' + plain), -15);
        for (const auto& [escaped, text] :
             {std::pair("\\n", "\n"), {"\\u00e4", "ä"}, {"ä", "ä"}, {"\\ud83d\\ude00", "😀"}, {"\x01", "\x01"}}) {
            EXPECT_EQ(read('"' + plain + escaped + plain + '"'), Value(plain + text + plain)) << length << escaped;
            EXPECT_EQ(read("{\"" + plain + escaped + "\":1}").asDictionary()->begin()->key(), plain + text);
        }
        EXPECT_EQ(codeFor('"' + plain + "\xFF" + plain + '"'), -12) << length;
        EXPECT_EQ(codeFor('"' + plain + "\\n\xC3\"" + plain), -12) << length;
    }
}

TEST(CJSONDeserializerTest, readsEveryEscape) {
    EXPECT_EQ(read(R"("\"\\\/\b\f\n\r\t\u0041\uFFFD\u0000")"), Value(std::string_view("\"\\/\b\f\n\r\tA\xEF\xBF\xBD\0", 13)));
    CJSONScanner scanner("\"a\\qb\"");
    scanner.setStrictEscapeCodes(false);
    NS::SharedText text;
    EXPECT_TRUE(scanner.scanJSONStringConstant(text));
    EXPECT_EQ(text.view(), "aqb");
}

TEST(CJSONDeserializerTest, refusesInvalidUTF8) {
    for (const std::string_view bytes : {"\x80", "\xC3", "\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80", "\xF0\x80\x80\x80",
                                         "\xF4\x90\x80\x80", "\xF8\x88\x80\x80\x80", "\xE2\x82", "\xFE", "\xE2\x28\xA1"}) {
        EXPECT_EQ(codeFor('"' + std::string(bytes) + '"'), -12);
        EXPECT_EQ(codeFor("{\"" + std::string(bytes) + "\":1}"), -12);
    }
}

TEST(CJSONDeserializerTest, keepsTheLastOfEqualKeysAtTheFirstOnesPlace) {
    EXPECT_EQ(read(R"({"a":1,"b":2,"a":3})"), Value(Dictionary{{"a", 3}, {"b", 2}}));
    EXPECT_EQ(read(R"({"a":1,"b":2,"a":3})").asDictionary()->begin()->key(), "a");
    std::string json = "{";
    for (int i = 0; i < 1000; ++i) json += "\"key number " + std::to_string(i % 700) + "\":" + std::to_string(i) + ",";
    json.back() = '}';
    const Value value = read(json);
    ASSERT_EQ(value.asDictionary()->size(), 700U);
    for (int i = 0; i < 700; ++i) {
        EXPECT_EQ((*value.asDictionary())["key number " + std::to_string(i)], Value(i < 300 ? i + 700 : i));
    }
}

TEST(CJSONDeserializerTest, boundsTheDepth) {
    auto nested = [](int depth, std::string_view open, std::string_view close) {
        std::string json;
        for (int i = 0; i < depth; ++i) json += open;
        json += "1";
        for (int i = 0; i < depth; ++i) json += close;
        return json;
    };
    EXPECT_EQ(codeFor(nested(512, "[", "]")), 0);
    EXPECT_EQ(codeFor(nested(513, "[", "]")), -17);
    EXPECT_EQ(codeFor(nested(512, "{\"a\":", "}")), 0);
    EXPECT_EQ(codeFor(nested(513, "{\"a\":", "}")), -17);
    EXPECT_EQ(codeFor(std::string(10'000'000, '[')), -17);
}

TEST(CJSONDeserializerTest, readsTheWideEncodings) {
    auto widened = [](std::string_view utf8, int width, bool bigEndian) {
        std::string out;
        auto put = [&](char32_t unit) {
            for (int i = 0; i < width; ++i) out.push_back(static_cast<char>(unit >> 8 * (bigEndian ? width - 1 - i : i)));
        };
        for (const char* p = utf8.data(); p != utf8.data() + utf8.size();) {
            const std::size_t length = NS::utf8CharacterLength(p, utf8.data() + utf8.size());
            const char32_t character = NS::utf8Character(p, length);
            if (width == 2 && character > 0xFFFF) {
                put(0xD800 + ((character - 0x10000) >> 10));
                put(0xDC00 + ((character - 0x10000) & 0x3FF));
            } else {
                put(character);
            }
            p += length;
        }
        return out;
    };
    const std::string json = R"({"key":["ä€😀",1]})";
    const Value value = read(json);
    for (const int width : {2, 4}) {
        for (const bool bigEndian : {false, true}) {
            const std::string wide = widened(json, width, bigEndian);
            EXPECT_EQ(read(wide), value) << width << bigEndian;
            EXPECT_NE(codeFor(wide.substr(0, wide.size() - 1)), 0);
        }
    }
    EXPECT_EQ(codeFor(std::string_view("[\0\"\0\0\xD8\"\0]\0", 10)), -12);  // a lone surrogate
    EXPECT_EQ(codeFor(std::string_view("[\0\"\0\0\xDC\"\0]\0", 10)), -12);
    EXPECT_EQ(codeFor(std::string_view("[\0\0\0\0\0\x11\0]\0\0\0", 12)), -12);  // beyond U+10FFFF
    EXPECT_EQ(read("\xEF\xBB\xBF[1]"), Value(Array{1}));                        // a byte order mark
}

TEST(CJSONDeserializerTest, failsAtEveryPlaceWhereATextIsCutOff) {
    const std::string json =
        R"({"transaction":{"xaction_object_type":"Note","n":[1,-2.5e3,true,null,"\u00e4\ud83d\ude00ö"]},"x":{}})";
    ASSERT_FALSE(read(json).isNil());
    for (std::size_t length = 1; length < json.size(); ++length) {
        const std::string cut(json, 0, length);  // a copy of its own, so that reading beyond its end is seen
        EXPECT_NE(codeFor(std::string_view(cut.data(), length)), 0) << cut;
    }
}

}  // namespace
}  // namespace velkor
