// How reader and writer find the next character of a string that is not simply copied.
#pragma once

#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace velkor::detail {

/// Whether the byte is a control character, a double quote, a backslash or not ASCII.
inline bool isSpecialTextByte(char c) noexcept {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte >= 0x80 || c == '"' || c == '\\';
}

#if defined(__SSE2__)

/// A bit for each such byte among the sixteen.
inline unsigned specialTextBytes(__m128i bytes) noexcept {
    // As signed bytes, control characters and all that is not ASCII lie below the blank.
    const __m128i low = _mm_cmplt_epi8(bytes, _mm_set1_epi8(0x20));
    const __m128i marks = _mm_or_si128(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('"')), _mm_cmpeq_epi8(bytes, _mm_set1_epi8('\\')));
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_or_si128(low, marks)));
}
inline unsigned specialsOfSixteen(const char* p) noexcept {
    return specialTextBytes(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
}
inline unsigned specialsOfEight(const char* p) noexcept {
    return specialTextBytes(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p))) & 0xFF;
}

/// The first such byte from `p` on, or `end`.
inline const char* skipPlainText(const char* p, const char* end) noexcept {
    if (end - p >= 16) {
        for (; end - p >= 16; p += 16) {
            if (const unsigned found = specialsOfSixteen(p)) return p + __builtin_ctz(found);
        }
        if (p == end) return end;
        // The last sixteen bytes once more; those before `p` are plain.
        const unsigned found = specialsOfSixteen(end - 16);
        return found ? end - 16 + __builtin_ctz(found) : end;
    }
    if (end - p >= 8) {
        if (const unsigned found = specialsOfEight(p)) return p + __builtin_ctz(found);
        const unsigned found = specialsOfEight(end - 8);
        return found ? end - 8 + __builtin_ctz(found) : end;
    }
    while (p != end && !isSpecialTextByte(*p)) ++p;
    return p;
}

#else

/// The first such byte from `p` on, or `end`.
inline const char* skipPlainText(const char* p, const char* end) noexcept {
    constexpr std::uint64_t ones = 0x0101010101010101ULL, tops = 0x8080808080808080ULL;
    auto hasZero = [](std::uint64_t x) { return (x - ones) & ~x; };
    for (; end - p >= 8; p += 8) {
        std::uint64_t eight;
        std::memcpy(&eight, p, 8);
        const std::uint64_t control = (eight - ones * 0x20) & ~eight;
        if ((control | hasZero(eight ^ ones * '"') | hasZero(eight ^ ones * '\\') | eight) & tops) break;
    }
    while (p != end && !isSpecialTextByte(*p)) ++p;
    return p;
}

#endif

}  // namespace velkor::detail
