#include "platform/persistence/KeyedArchiver.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "platform/base/Exception.h"

namespace velkor::NS {
namespace {

struct Point : Archivable {
    std::int64_t x = 0;
    bool visible = false;
    Value label;

    std::string_view className() const noexcept override { return "Point"; }
    void encodeWithCoder(Coder& coder) const override {
        coder.encodeInt64(x, "x");
        coder.encodeBool(visible, "visible");
        coder.encodeObject(label, "label");
    }
    static std::shared_ptr<Archivable> fromCoder(const Coder& coder) {
        auto point = std::make_shared<Point>();
        point->x = coder.decodeInt64("x");
        point->visible = coder.decodeBool("visible");
        point->label = coder.decodeObject("label");
        return point;
    }
};

struct Unregistered : Archivable {
    std::string_view className() const noexcept override { return "Unregistered"; }
    void encodeWithCoder(Coder&) const override {}
};

std::shared_ptr<Point> point(std::int64_t x, Value label) {
    auto made = std::make_shared<Point>();
    made->x = x;
    made->visible = true;
    made->label = std::move(label);
    return made;
}

// The body as an archive with the right length and checksum, so that damage reaches the decoder.
std::string sealed(std::string_view body) {
    std::string bytes("VKARCHIV\1\0\0\0", 12);
    const std::uint64_t length = body.size();
    bytes.append(reinterpret_cast<const char*>(&length), 8).append(body);
    const auto checksum = static_cast<std::uint32_t>(crc32_z(0, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size()));
    return bytes.append(reinterpret_cast<const char*>(&checksum), 4);
}

std::string bodyOf(const Data& archive) { return std::string(archive.view().substr(20, archive.size() - 24)); }

class KeyedArchiverTest : public testing::Test {
protected:
    void SetUp() override { registerArchivableClass("Point", Point::fromCoder); }
};

TEST_F(KeyedArchiverTest, keepsEveryKindOfValue) {
    const Value root = Dictionary{
        {"null", Null()},
        {"yes", true},
        {"no", false},
        {"lowest", std::numeric_limits<std::int64_t>::min()},
        {"real", 0.1},
        {"not a number", std::nan("")},
        {"decimal", Value::decimal("12345678901234567890.05")},
        {"text", std::string("any \0\xFF bytes", 12)},
        {"long", std::string(70'000, 'x')},
        {"date", Date(1362477600.25)},
        {"data", Data::copyOf("bytes")},
        {"list", Array{Array(), Dictionary(), Data(), ""}},
    };
    const auto restored = unarchiveObjectWithData(archivedDataWithRootObject(root).view());
    ASSERT_TRUE(restored);
    EXPECT_EQ(restored.value(), root);
    EXPECT_EQ((*restored.value().asDictionary())["date"].asDate()->timeIntervalSince1970(), 1362477600.25);
}

TEST_F(KeyedArchiverTest, restoresObjectsWithinCollectionsAndObjects) {
    Dictionary root;
    for (int i = 0; i < 300; ++i)
        root.set("guid " + std::to_string(i), point(i, i % 2 ? Value(point(-i, Value())) : Value("label")));
    const auto restored = unarchiveObjectWithData(archivedDataWithRootObject(root).view());
    ASSERT_TRUE(restored);
    ASSERT_EQ(restored.value().asDictionary()->size(), 300u);
    int i = 0;
    for (const auto& [key, value] : *restored.value().asDictionary()) {
        EXPECT_EQ(key, "guid " + std::to_string(i));
        const auto object = value.as<Point>();
        ASSERT_TRUE(object);
        EXPECT_EQ(object->x, i);
        EXPECT_TRUE(object->visible);
        if (i % 2) {
            EXPECT_EQ(object->label.as<Point>()->x, -i);
            EXPECT_TRUE(object->label.as<Point>()->label.isNil());
        } else {
            EXPECT_EQ(object->label, Value("label"));
        }
        ++i;
    }
}

TEST_F(KeyedArchiverTest, membersOfAnotherTypeReadAsMissing) {
    struct Odd : Archivable {
        std::string_view className() const noexcept override { return "Point"; }
        void encodeWithCoder(Coder& coder) const override {
            coder.encodeObject("text", "x");
            coder.encodeInt64(1, "visible");
        }
    };
    const auto restored = unarchiveObjectWithData(archivedDataWithRootObject(std::make_shared<Odd>()).view());
    const auto object = restored.value().as<Point>();
    EXPECT_EQ(object->x, 0);
    EXPECT_FALSE(object->visible);
    EXPECT_TRUE(object->label.isNil());
}

TEST_F(KeyedArchiverTest, raisesForWhatCannotBeArchived) {
    Value deep = 1;
    for (int i = 0; i < 513; ++i) deep = Array{deep};
    for (const Value& root : {Value(), Value(Array{std::make_shared<Object>()}), deep}) {
        EXPECT_THROW(archivedDataWithRootObject(root), Exception);
    }
    EXPECT_TRUE(unarchiveObjectWithData(archivedDataWithRootObject((*deep.asArray())[0]).view()));
}

TEST_F(KeyedArchiverTest, reportsAnUnknownClassByName) {
    const auto result = unarchiveObjectWithData(archivedDataWithRootObject(std::make_shared<Unregistered>()).view());
    ASSERT_FALSE(result);
    EXPECT_NE(result.error().localizedDescription().find("Unregistered"), std::string::npos);
}

TEST_F(KeyedArchiverTest, noticesEveryChangedByteAndEveryLostOne) {
    const std::string good(archivedDataWithRootObject(Dictionary{{"a", point(1, "label")}, {"b", Array{1, 2.5}}}).view());
    ASSERT_TRUE(unarchiveObjectWithData(good));
    for (std::size_t i = 0; i < good.size(); ++i) {
        std::string bytes = good;
        bytes[i] = static_cast<char>(bytes[i] ^ 0x10);
        EXPECT_FALSE(unarchiveObjectWithData(bytes)) << i;
        EXPECT_FALSE(unarchiveObjectWithData(std::string_view(good).substr(0, i))) << i;
    }
    EXPECT_FALSE(unarchiveObjectWithData(good + "x"));
}

TEST_F(KeyedArchiverTest, refusesBodiesThatLie) {
    using namespace std::string_view_literals;
    const std::string_view bodies[] = {
        ""sv,
        "\x0C"sv,                                          // no such tag
        "\x06\x05text"sv,                                  // longer than the rest
        "\x06\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x01"sv,  // a length of 64 bits
        "\x06\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x7F"sv,  // more than 64 bits
        "\x09\xFF\xFF\xFF\xFF\x07"sv,                      // more elements than bytes
        "\x0A\xFF\xFF\xFF\xFF\0\0"sv,                      // more members than bytes
        "\x0B\x01\0\0\0\x01\x00"sv,                        // a name that is not there
        "\x03\x01"sv,                                      // half a number
        "\x05\x03x.y"sv,                                   // no decimal
        "\x01\x01"sv,                                      // something behind the end
        "\x0B\x00\x05Point\x01\0\0\0\x01\x01x"sv,          // a member without a value
    };
    for (const std::string_view body : bodies) EXPECT_FALSE(unarchiveObjectWithData(sealed(body)));
    std::string deep;
    for (int i = 0; i < 100'000; ++i) deep += "\x09\x01";
    EXPECT_FALSE(unarchiveObjectWithData(sealed(deep + '\0')));
    // The helper itself makes archives that can be read.
    EXPECT_EQ(unarchiveObjectWithData(sealed(bodyOf(archivedDataWithRootObject("text")))).value(), Value("text"));
}

// Written by version 1; every later version reads it.
TEST_F(KeyedArchiverTest, readsTheFirstVersionsBytes) {
    using namespace std::string_view_literals;
    const auto body =
        "\x0A\x02\0\0\0"
        "\x04guid\x0B\x00\x05Point\x02\0\0\0\x01\x01x\x03\x07\0\0\0\0\0\0\0\x02\x07visible\x02"
        "\x04list\x09\x03\x00\x02\x06\x03"
        "abc"sv;
    const auto restored = unarchiveObjectWithData(sealed(body));
    ASSERT_TRUE(restored) << restored.error().localizedDescription();
    const Dictionary& root = *restored.value().asDictionary();
    EXPECT_EQ(root["guid"].as<Point>()->x, 7);
    EXPECT_TRUE(root["guid"].as<Point>()->visible);
    EXPECT_EQ(root["list"], (Value(Array{Null(), true, "abc"})));
}

}  // namespace
}  // namespace velkor::NS
