#include "platform/persistence/PropertyList.h"

#include <gtest/gtest.h>

#include <array>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <vector>

#include "platform/persistence/AtomicFile.h"
#include "tests/support/TemporaryDirectory.h"

namespace velkor::NS {
namespace {

std::string document(std::string_view content) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist PUBLIC \"a\" \"b\">\n<plist version=\"1.0\">" +
           std::string(content) + "</plist>\n";
}

// A binary property list of the given objects (object 0 is the root), with offsets of two bytes and references of one.
std::string binary(const std::vector<std::string_view>& objects) {
    const auto twoBytes = [](std::size_t number) {
        return std::string{static_cast<char>(number >> 8), static_cast<char>(number)};
    };
    std::string bytes = "bplist00", offsets;
    for (const std::string_view object : objects) {
        offsets += twoBytes(bytes.size());
        bytes += object;
    }
    const std::string table = twoBytes(bytes.size());
    std::string trailer(32, '\0');
    trailer[6] = 2;
    trailer[7] = 1;
    trailer[15] = static_cast<char>(objects.size());
    return bytes + offsets + trailer.replace(30, 2, table);
}

TEST(PropertyListTest, keepsEveryKindOfValue) {
    const Value value = Dictionary{
        {"text", "ümläut <&> \"quoted\"\n\ttab"},
        {"", ""},
        {"lowest", std::numeric_limits<std::int64_t>::min()},
        {"minus one", -1},
        {"highest", std::numeric_limits<std::int64_t>::max()},
        {"yes", true},
        {"no", false},
        {"real", 0.1},
        {"tiny", 5e-324},
        {"infinite", -std::numeric_limits<double>::infinity()},
        {"date", Date(1362477600)},
        {"before 1970", Date(-100)},
        {"data", Data::copyOf(std::string("\0\1\xFFxyz", 6))},
        {"no data", Data()},
        {"list", Array{1, Array(), Dictionary(), Array{Dictionary{{"deep", "x"}}}}},
    };
    const auto text = propertyListXML(value);
    ASSERT_TRUE(text);
    const auto read = propertyListFromBytes(text.value());
    ASSERT_TRUE(read) << read.error().localizedDescription();
    EXPECT_EQ(read.value(), value);
    EXPECT_EQ((*read.value().asDictionary())["yes"].kind(), Value::Kind::boolean);
    EXPECT_EQ((*read.value().asDictionary())["minus one"].kind(), Value::Kind::integer);
}

TEST(PropertyListTest, dropsFractionsOfSecondsTowardsThePast) {
    for (const auto& [seconds, whole] : {std::pair{1.9, 1.0}, {-1.1, -2.0}}) {
        EXPECT_EQ(propertyListFromBytes(propertyListXML(Date(seconds)).value()).value(), Value(Date(whole)));
    }
}

TEST(PropertyListTest, refusesToWriteWhatItCouldNotReadBack) {
    Value deep = 1;
    for (int i = 0; i < 129; ++i) deep = Array{deep};
    const Value refused[] = {
        Value(),
        Null(),
        Array{Null()},
        Value::decimal("1.5"),
        "control \x01",
        std::string("nul \0", 5),
        "\xFF not UTF-8",
        Dictionary{{"key \x02", 1}},
        Date(1e12),
        Date(std::nan("")),
        deep,
        std::make_shared<Object>(),
    };
    for (const Value& value : refused) EXPECT_FALSE(propertyListXML(value)) << value.className();
    EXPECT_TRUE(propertyListXML((*deep.asArray())[0]));

    Array many;
    many.reserve(3'999'999);
    while (many.size() < 3'999'999) many.push_back(1);
    const auto text = propertyListXML(many);
    ASSERT_FALSE(text);
    EXPECT_NE(text.error().localizedDescription().find("too many values"), std::string::npos);
}

TEST(PropertyListTest, readsAndWritesNumbersAlikeInEveryLocale) {
    const test::TemporaryDirectory directory;
    const std::string make = "localedef -i de_DE -f UTF-8 '" + directory.path().string() + "/comma.UTF-8' 2>/dev/null";
    if (std::system(make.c_str()) != 0) GTEST_SKIP() << "no locale with a decimal comma can be made on this machine";
    setenv("LOCPATH", directory.path().c_str(), 1);
    ASSERT_TRUE(std::setlocale(LC_ALL, "comma.UTF-8"));
    const auto text = propertyListXML(1.5);
    const auto read = propertyListFromBytes(document("<real>2.5</real>"));
    const auto beyond = Value::decimal("0.5e400").asDouble();
    const std::string hosts = std::to_string(0.5);
    std::setlocale(LC_ALL, "C");
    EXPECT_EQ(hosts.substr(0, 3), "0,5") << "the program keeps its locale";
    EXPECT_EQ(propertyListFromBytes(text.value()).value(), Value(1.5));
    EXPECT_EQ(read.value(), Value(2.5));
    EXPECT_EQ(beyond, std::numeric_limits<double>::infinity());
}

TEST(PropertyListTest, refusesDamagedXml) {
    const std::string damaged[] = {
        "",
        "garbage",
        "<plist version=\"1.0\">",
        document(""),
        document("<string>1</string><string>2</string>"),
        document("<integer>abc</integer>"),
        document("<integer>9223372036854775808</integer>"),
        document("<integer></integer>"),
        document("<integer>010</integer>"),
        document("<integer>-09</integer>"),
        document("<real>x</real>"),
        document("<real>+-1.5</real>"),
        document("<date>2013-02-30T00:00:00Z</date>"),
        document("<date>2100-01-01T00:00:00Z</date>"),
        document("<data>aGVsbG8</data>"),
        document("<data>!!!!</data>"),
        document("<true>x</true>"),
        document("<foo/>"),
        document("<dict><key>a</key></dict>"),
        document("<dict><string>a</string></dict>"),
        document("<array><key>a</key></array>"),
        document("<array>text</array>"),
        document("<array></dict>"),
        document("<string>a<b></string>"),
        document("<string>&#1;</string>"),
        document("<string>\xFF</string>"),
        document("<string>&bogus;</string>"),
        document("<integer><!-- 7 -->5</integer>"),
        document("<dict/>") + "more",
        "<!DOCTYPE plist [<!ENTITY a \"b\">]>" + document("<dict/>"),
        document("<string>a").substr(0, 120),
        // What the scan and the parser would understand differently.
        "<!DOCTYPE \"><plist><string><![CDATA[\"><plist><array></array></plist>]]></string></plist>",
        "<?xml \"?> <plist><string><![CDATA[\" ?> <plist><array></array></plist>]]></string></plist>",
        "<plist a=\"><string><![CDATA[\"><array></array></plist>]]></string></plist>",
    };
    for (const std::string& text : damaged) EXPECT_FALSE(propertyListFromBytes(text)) << text;
    const std::string accepted =
        "\xEF\xBB\xBF" + document("<!-- c --><dict ><key>a</key ><string><![CDATA[<&]]>&lt;</string></dict>");
    EXPECT_EQ(propertyListFromBytes(accepted).value(), (Value(Dictionary{{"a", "<&<"}})));
}

TEST(PropertyListTest, boundsTheNesting) {
    const auto nested = [](int levels, std::string_view innermost = "") {
        std::string text;
        for (int i = 0; i < levels; ++i) text += "<array>";
        text += innermost;
        for (int i = 0; i < levels; ++i) text += "</array>";
        return document(text);
    };
    EXPECT_TRUE(propertyListFromBytes(nested(128)));
    EXPECT_TRUE(propertyListFromBytes(nested(127, "<array/>")));
    EXPECT_TRUE(propertyListFromBytes(nested(128, "<true/>")));
    EXPECT_FALSE(propertyListFromBytes(nested(128, "<array/>")));
    EXPECT_FALSE(propertyListFromBytes(nested(129)));
    EXPECT_FALSE(propertyListFromBytes(nested(300'000)));

    std::vector<std::string> chain;
    for (int i = 0; i < 128; ++i) chain.push_back({'\xA1', static_cast<char>(i + 1)});
    std::vector<std::string_view> objects(chain.begin(), chain.end());
    objects.push_back("\x09");
    EXPECT_TRUE(propertyListFromBytes(binary(objects)));
    objects.back() = "\xA0";
    EXPECT_FALSE(propertyListFromBytes(binary(objects)));
}

TEST(PropertyListTest, readsBinaryAndRefusesDamagedBinary) {
    using namespace std::string_view_literals;
    const auto read = propertyListFromBytes(binary(
        {"\xD2\x01\x02\x03\x04", "\x51\x61", "\x61\x00\xE9"sv, "\x13\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFE", "\xA2\x05\x01", "\x09"}));
    ASSERT_TRUE(read) << read.error().localizedDescription();
    EXPECT_EQ(read.value(), (Value(Dictionary{{"a", -2}, {"é", Array{true, "a"}}})));

    const std::string refused[] = {
        binary({"\xA1\x00"sv}),                                              // holds itself
        binary({"\xA1\x07"sv}),                                              // refers to nothing
        binary({"\xD1\x01\x01"sv, "\x10\x05"sv}),                            // a number as the key
        binary({"\x5F\x10\xFF"sv}),                                          // longer than the file
        binary({"\x14\0\0\0\0\0\0\0\0\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"sv}),  // beyond 63 bits
        binary({"\x33\x7F\xF0\0\0\0\0\0\0"sv}),                              // an infinite date
        binary({"\x51\0"sv}),                                                // NUL
        binary({"\x61\xD8\x00"sv}),                                          // half a pair
        binary({"\x80\x01"sv}),                                              // a reference of a foreign archive
        std::string("bplist00"),
        std::string("bplist00") + std::string(32, '\xFF'),
    };
    for (const std::string& bytes : refused) EXPECT_FALSE(propertyListFromBytes(bytes));

    // Shared references that would unfold to 14^7 values.
    std::array<std::string, 8> levels;
    for (std::size_t i = 0; i < 7; ++i) levels[i] = "\xAE" + std::string(14, static_cast<char>(i + 1));
    levels[7] = "\x09";
    EXPECT_FALSE(
        propertyListFromBytes(binary({levels[0], levels[1], levels[2], levels[3], levels[4], levels[5], levels[6], levels[7]})));
}

TEST(PropertyListTest, filesHoldDictionaries) {
    const test::TemporaryDirectory directory;
    const auto path = directory / "file.plist";
    EXPECT_EQ(dictionaryWithContentsOfFile(path).error().code(), ENOENT);
    ASSERT_TRUE(writeDictionaryToFile({{"a", 1}}, path));
    EXPECT_EQ(dictionaryWithContentsOfFile(path).value(), (Dictionary{{"a", 1}}));
    EXPECT_FALSE(writeDictionaryToFile({{"a", Null()}}, path));
    EXPECT_EQ(dictionaryWithContentsOfFile(path).value(), (Dictionary{{"a", 1}}));
    ASSERT_TRUE(writeFileAtomically(path, document("<array/>")));
    EXPECT_FALSE(dictionaryWithContentsOfFile(path));
}

}  // namespace
}  // namespace velkor::NS
