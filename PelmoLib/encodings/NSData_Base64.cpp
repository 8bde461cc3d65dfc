#include "PelmoLib/encodings/NSData_Base64.h"

#include <array>
#include <cstdint>

#include "PelmoLib/encodings/Base64Blocks.h"
#include "platform/base/Exception.h"

namespace velkor {

namespace {

constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t invalid = 0xFF;
constexpr std::uint8_t skipped = 0xFE;

constexpr std::array<std::uint8_t, 256> reverseTable = [] {
    std::array<std::uint8_t, 256> table{};
    table.fill(invalid);
    for (const char c : std::string_view(" \t\n\v\f\r=")) table[static_cast<unsigned char>(c)] = skipped;
    for (std::size_t i = 0; i < alphabet.size(); ++i)
        table[static_cast<unsigned char>(alphabet[i])] = static_cast<std::uint8_t>(i);
    return table;
}();

std::uint8_t sextet(char c) noexcept { return reverseTable[static_cast<unsigned char>(c)]; }

/// Writes the decoded bytes at `out`, which has room for 3 a group of four characters and 16 more; returns the place behind them,
/// or null when the text is no base64.
char* decode(const char* in, const char* end, char* out) noexcept {
    std::uint32_t group = 0;
    int count = 0;
    while (true) {
        if (count == 0) detail::decodeBase64Blocks(in, end, out);
        if (in == end) break;
        const std::uint8_t bits = sextet(*in++);
        if (bits == skipped) continue;
        if (bits == invalid) return nullptr;
        group = group << 6 | bits;
        if (++count < 4) continue;
        *out++ = static_cast<char>(group >> 16);
        *out++ = static_cast<char>(group >> 8);
        *out++ = static_cast<char>(group);
        count = 0;
    }
    if (count == 1) return nullptr;
    if (count >= 2) *out++ = static_cast<char>(group >> (count == 2 ? 4 : 10));
    if (count == 3) *out++ = static_cast<char>(group >> 2);
    return out;
}

}  // namespace

void appendBase64Encoding(std::string& out, std::string_view bytes) {
    const std::size_t before = out.size();
    out.resize(before + (bytes.size() + 2) / 3 * 4);
    char* text = out.data() + before;
    const char* in = bytes.data();
    const char* const end = in + bytes.size();
    detail::encodeBase64Blocks(in, end, text);
    auto byte = [&in](int i) { return static_cast<std::uint32_t>(static_cast<unsigned char>(in[i])); };
    for (; end - in >= 3; in += 3) {
        const std::uint32_t group = byte(0) << 16 | byte(1) << 8 | byte(2);
        for (int shift = 18; shift >= 0; shift -= 6) *text++ = alphabet[group >> shift & 0x3F];
    }
    if (in == end) return;
    const bool two = end - in == 2;
    const std::uint32_t group = byte(0) << 16 | (two ? byte(1) << 8 : 0);
    *text++ = alphabet[group >> 18];
    *text++ = alphabet[group >> 12 & 0x3F];
    *text++ = two ? alphabet[group >> 6 & 0x3F] : '=';
    *text++ = '=';
}

std::string base64Encoding(std::string_view bytes) {
    std::string text;
    appendBase64Encoding(text, bytes);
    return text;
}

bool appendBase64Decoding(std::string& out, std::string_view text) {
    const std::size_t before = out.size();
    out.resize(before + text.size() / 4 * 3 + 16);
    const char* const begin = out.data() + before;
    const char* const end = decode(text.data(), text.data() + text.size(), out.data() + before);
    out.resize(end ? before + static_cast<std::size_t>(end - begin) : before);
    return end != nullptr;
}

std::optional<NS::Data> dataWithBase64EncodedString(std::optional<std::string_view> text) {
    if (!text) throw NS::Exception(NS::InvalidArgumentException, "dataWithBase64EncodedString: the text is nil");
    std::string bytes;
    if (!appendBase64Decoding(bytes, *text)) return std::nullopt;
    return NS::Data(std::move(bytes));
}

}  // namespace velkor
