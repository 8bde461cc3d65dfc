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

/// The first such byte from `p` on, or `end`.
inline const char* skipPlainText(const char* p, const char* end) noexcept {
#if defined(__SSE2__)
    // As signed bytes, control characters and all that is not ASCII lie below the blank.
    const __m128i blank = _mm_set1_epi8(0x20), quote = _mm_set1_epi8('"'), backslash = _mm_set1_epi8('\\');
    auto specials = [&](const char* at) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
        return _mm_or_si128(_mm_cmplt_epi8(bytes, blank),
                            _mm_or_si128(_mm_cmpeq_epi8(bytes, quote), _mm_cmpeq_epi8(bytes, backslash)));
    };
    for (; end - p >= 64; p += 64) {
        const __m128i any =
            _mm_or_si128(_mm_or_si128(specials(p), specials(p + 16)), _mm_or_si128(specials(p + 32), specials(p + 48)));
        if (_mm_movemask_epi8(any) != 0) break;
    }
    for (; end - p >= 16; p += 16) {
        if (const int mask = _mm_movemask_epi8(specials(p))) return p + __builtin_ctz(static_cast<unsigned>(mask));
    }
#else
    constexpr std::uint64_t ones = 0x0101010101010101ULL, tops = 0x8080808080808080ULL;
    auto hasZero = [](std::uint64_t x) { return (x - ones) & ~x; };
    for (; end - p >= 8; p += 8) {
        std::uint64_t eight;
        std::memcpy(&eight, p, 8);
        const std::uint64_t control = (eight - ones * 0x20) & ~eight;
        if ((control | hasZero(eight ^ ones * '"') | hasZero(eight ^ ones * '\\') | eight) & tops) break;
    }
#endif
    while (p != end && !isSpecialTextByte(*p)) ++p;
    return p;
}

}  // namespace velkor::detail
