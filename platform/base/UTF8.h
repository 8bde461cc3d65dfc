#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace velkor::NS {

/// Bytes of the well-formed character that starts at `p` (1 to 4; no surrogates, nothing overlong, at most U+10FFFF), or 0 when
/// there is none. `p` must be before `end`.
inline std::size_t utf8CharacterLength(const char* p, const char* end) noexcept {
    auto byte = [p](std::size_t i) { return static_cast<unsigned char>(p[i]); };
    auto follows = [&](std::size_t i) { return (byte(i) & 0xC0) == 0x80; };
    const auto left = static_cast<std::size_t>(end - p);
    const unsigned first = byte(0);
    if (first < 0x80) return 1;
    if (first < 0xC2) return 0;
    if (first < 0xE0) return left >= 2 && follows(1) ? 2 : 0;
    if (first < 0xF0) {
        if (left < 3 || !follows(1) || !follows(2)) return 0;
        if (first == 0xE0 && byte(1) < 0xA0) return 0;
        if (first == 0xED && byte(1) >= 0xA0) return 0;
        return 3;
    }
    if (first > 0xF4 || left < 4 || !follows(1) || !follows(2) || !follows(3)) return 0;
    if (first == 0xF0 && byte(1) < 0x90) return 0;
    if (first == 0xF4 && byte(1) >= 0x90) return 0;
    return 4;
}

/// The first byte from `p` on that is not ASCII, or `end`.
inline const char* skipASCII(const char* p, const char* end) noexcept {
    for (; end - p >= 8; p += 8) {
        std::uint64_t eight;
        std::memcpy(&eight, p, 8);
        if (eight & 0x8080808080808080ULL) break;
    }
    while (p != end && static_cast<unsigned char>(*p) < 0x80) ++p;
    return p;
}

inline bool isValidUTF8(std::string_view text) noexcept {
    const char* end = text.data() + text.size();
    for (const char* p = skipASCII(text.data(), end); p != end; p = skipASCII(p, end)) {
        const std::size_t length = utf8CharacterLength(p, end);
        if (length == 0) return false;
        p += length;
    }
    return true;
}

/// Characters of the text as the platform counts them: UTF-16 code units. A byte that belongs to no character counts as one.
inline std::size_t utf16Length(std::string_view text) noexcept {
    std::size_t count = 0;
    const char* end = text.data() + text.size();
    for (const char* p = text.data(); p != end;) {
        const char* const ascii = p;
        p = skipASCII(p, end);
        count += static_cast<std::size_t>(p - ascii);
        if (p == end) break;
        const std::size_t length = utf8CharacterLength(p, end);
        count += length == 4 ? 2 : 1;
        p += length == 0 ? 1 : length;
    }
    return count;
}

/// The character of `length` well-formed bytes at `p`.
inline char32_t utf8Character(const char* p, std::size_t length) noexcept {
    auto byte = [p](std::size_t i) { return static_cast<char32_t>(static_cast<unsigned char>(p[i])); };
    switch (length) {
        case 1:
            return byte(0);
        case 2:
            return (byte(0) & 0x1F) << 6 | (byte(1) & 0x3F);
        case 3:
            return (byte(0) & 0x0F) << 12 | (byte(1) & 0x3F) << 6 | (byte(2) & 0x3F);
        default:
            return (byte(0) & 0x07) << 18 | (byte(1) & 0x3F) << 12 | (byte(2) & 0x3F) << 6 | (byte(3) & 0x3F);
    }
}

/// Writes the character (no surrogate, at most U+10FFFF) at `out`, which has room for 4 bytes; returns the place behind it.
inline char* writeUTF8(char* out, char32_t character) noexcept {
    auto put = [&out](char32_t bits) { *out++ = static_cast<char>(bits); };
    if (character < 0x80) {
        put(character);
    } else if (character < 0x800) {
        put(0xC0 | character >> 6);
        put(0x80 | (character & 0x3F));
    } else if (character < 0x10000) {
        put(0xE0 | character >> 12);
        put(0x80 | (character >> 6 & 0x3F));
        put(0x80 | (character & 0x3F));
    } else {
        put(0xF0 | character >> 18);
        put(0x80 | (character >> 12 & 0x3F));
        put(0x80 | (character >> 6 & 0x3F));
        put(0x80 | (character & 0x3F));
    }
    return out;
}
inline void appendUTF8(std::string& out, char32_t character) {
    char bytes[4];
    out.append(bytes, static_cast<std::size_t>(writeUTF8(bytes, character) - bytes));
}

}  // namespace velkor::NS
