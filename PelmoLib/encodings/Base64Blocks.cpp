#include "PelmoLib/encodings/Base64Blocks.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace velkor::detail {

#if defined(__x86_64__)

namespace {

const bool machineShuffles = __builtin_cpu_supports("ssse3");

__attribute__((target("ssse3"))) void encodeBlocks(const char*& in, const char* end, char*& out) noexcept {
    const __m128i spread = _mm_set_epi8(10, 11, 9, 10, 7, 8, 6, 7, 4, 5, 3, 4, 1, 2, 0, 1);
    // What to add to a six-bit value, by its range: A-Z, a-z, 0-9 (ten places), + and /.
    const __m128i offsets = _mm_setr_epi8('a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                                          '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0);
    for (; end - in >= 16; in += 12, out += 16) {
        const __m128i bytes = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(in)), spread);
        // Two multiplications shift the four sextets of each group into bytes of their own.
        const __m128i outer = _mm_mulhi_epu16(_mm_and_si128(bytes, _mm_set1_epi32(0x0FC0FC00)), _mm_set1_epi32(0x04000040));
        const __m128i inner = _mm_mullo_epi16(_mm_and_si128(bytes, _mm_set1_epi32(0x003F03F0)), _mm_set1_epi32(0x01000010));
        const __m128i sextets = _mm_or_si128(outer, inner);
        // Ranges: 0 for a-z, 1 to 10 for the digits, 11 for +, 12 for /, 13 for A-Z.
        const __m128i capital = _mm_cmpgt_epi8(_mm_set1_epi8(26), sextets);
        const __m128i range = _mm_or_si128(_mm_subs_epu8(sextets, _mm_set1_epi8(51)), _mm_and_si128(capital, _mm_set1_epi8(13)));
        const __m128i text = _mm_add_epi8(sextets, _mm_shuffle_epi8(offsets, range));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out), text);
    }
}

__attribute__((target("ssse3"))) void decodeBlocks(const char*& in, const char* end, char*& out) noexcept {
    // A character belongs to the alphabet when the marks of its two half bytes have no bit in common.
    const __m128i lowMarks =
        _mm_setr_epi8(0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x13, 0x1A, 0x1B, 0x1B, 0x1B, 0x1A);
    const __m128i highMarks =
        _mm_setr_epi8(0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10);
    // What to add to a character, by its high half byte (1 for the slash).
    const __m128i offsets = _mm_setr_epi8(0, 16, 19, 4, -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0);
    const __m128i halfByte = _mm_set1_epi8(0x0F);
    for (; end - in >= 16; in += 16, out += 12) {
        const __m128i text = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
        const __m128i high = _mm_and_si128(_mm_srli_epi32(text, 4), halfByte);
        const __m128i marks =
            _mm_and_si128(_mm_shuffle_epi8(lowMarks, _mm_and_si128(text, halfByte)), _mm_shuffle_epi8(highMarks, high));
        if (_mm_movemask_epi8(_mm_cmpeq_epi8(marks, _mm_setzero_si128())) != 0xFFFF) return;
        const __m128i slash = _mm_cmpeq_epi8(text, _mm_set1_epi8('/'));
        const __m128i sextets = _mm_add_epi8(text, _mm_shuffle_epi8(offsets, _mm_add_epi8(slash, high)));
        const __m128i pairs = _mm_maddubs_epi16(sextets, _mm_set1_epi32(0x01400140));
        const __m128i groups = _mm_madd_epi16(pairs, _mm_set1_epi32(0x00011000));
        const __m128i bytes = _mm_shuffle_epi8(groups, _mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out), bytes);
    }
}

}  // namespace

void encodeBase64Blocks(const char*& in, const char* end, char*& out) noexcept {
    if (machineShuffles) encodeBlocks(in, end, out);
}

void decodeBase64Blocks(const char*& in, const char* end, char*& out) noexcept {
    if (machineShuffles) decodeBlocks(in, end, out);
}

#else

void encodeBase64Blocks(const char*&, const char*, char*&) noexcept {}
void decodeBase64Blocks(const char*&, const char*, char*&) noexcept {}

#endif

}  // namespace velkor::detail
