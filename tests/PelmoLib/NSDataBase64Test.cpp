#include "PelmoLib/encodings/NSData_Base64.h"

#include <gtest/gtest.h>

#include <random>

#include "platform/base/Exception.h"

namespace velkor {
namespace {

std::optional<std::string> decoded(std::string_view text) {
    const auto data = dataWithBase64EncodedString(text);
    return data ? std::optional(std::string(data->view())) : std::nullopt;
}

TEST(NSDataBase64Test, encodesWithPadding) {
    const struct {
        std::string_view bytes, text;
    } cases[] = {{"", ""}, {"A", "QQ=="}, {"AB", "QUI="}, {"ABC", "QUJD"}, {"\xFF\xFF\xFE", "///+"}, {"\xFB\xEF\xBE", "++++"}};
    for (const auto& [bytes, text] : cases) {
        EXPECT_EQ(base64Encoding(bytes), text);
        EXPECT_EQ(decoded(text), bytes);
    }
}

TEST(NSDataBase64Test, skipsWhiteSpaceAndPaddingAnywhereAndRefusesAllElse) {
    const struct {
        std::string_view text;
        std::optional<std::string> bytes;
    } cases[] = {
        {"QQ", "A"},
        {"QQ==", "A"},
        {"=Q=Q=", "A"},
        {" Q\r\nU\tJ\v\fD ", "ABC"},
        {"====", ""},
        {"QUJDQQ==QUJD", "ABCA\x04\x14$"},  // a pad in the middle ends no group
        {"Q", std::nullopt},
        {"QUJDQ", std::nullopt},
        {"Q!==", std::nullopt},
        {"QUJ-", std::nullopt},
        {"QUJ_", std::nullopt},
        {"QUJ\xC3\xA4", std::nullopt},
        {std::string_view("QU\0D", 4), std::nullopt},
    };
    for (const auto& [text, bytes] : cases) EXPECT_EQ(decoded(text), bytes) << text;
    EXPECT_THROW((void)dataWithBase64EncodedString(std::nullopt), NS::Exception);
}

TEST(NSDataBase64Test, decodesEachCharacterAlikeAtEachPlaceOfALongText) {
    // Long texts take the fast path; one character at each place must be judged as it is in a short text.
    for (int byte = 0; byte < 256; ++byte) {
        const auto character = static_cast<char>(byte);
        const bool inAlphabet = std::isalnum(byte) || character == '+' || character == '/';
        const bool skipped = character == '=' || std::string_view(" \t\n\v\f\r").find(character) != std::string_view::npos;
        for (std::size_t place = 0; place < 40; ++place) {
            std::string text(40, 'Q');
            text[place] = character;
            const auto bytes = decoded(text);
            ASSERT_EQ(bytes.has_value(), inAlphabet || skipped) << byte;
            if (inAlphabet) {
                EXPECT_EQ(base64Encoding(*bytes), text);
            } else if (skipped) {
                EXPECT_EQ(bytes->size(), 29U);
            }
        }
    }
}

TEST(NSDataBase64Test, decodesWhatItEncodes) {
    std::mt19937 random(1);
    for (std::size_t size = 0; size < 400; ++size) {
        std::string bytes(size, '\0');
        for (char& c : bytes) c = static_cast<char>(random());
        const std::string text = base64Encoding(bytes);
        ASSERT_EQ(text.size(), (size + 2) / 3 * 4);
        ASSERT_EQ(decoded(text), bytes);
        std::string wrapped;
        for (std::size_t i = 0; i < text.size(); i += 19) wrapped += text.substr(i, 19) + "\r\n";
        ASSERT_EQ(decoded(wrapped), bytes);

        std::string out = "before";
        appendBase64Encoding(out, bytes);
        ASSERT_EQ(out, "before" + text);
        out = "before";
        ASSERT_TRUE(appendBase64Decoding(out, text));
        ASSERT_EQ(out, "before" + bytes);
        ASSERT_FALSE(appendBase64Decoding(out, text + "!"));
        ASSERT_EQ(out, "before" + bytes);
    }
}

}  // namespace
}  // namespace velkor
