#include "platform/base/Utf8.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace velkor::NS {
namespace {

// Length of the well-formed sequence at the start of the text, which begins with a byte above 0x7F; 0 when there is none.
std::size_t sequenceLength(const unsigned char* text, std::size_t size) noexcept {
    const unsigned char lead = text[0];
    const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || length > size) return 0;
    for (std::size_t i = 1; i < length; ++i) {
        if ((text[i] & 0xC0) != 0x80) return 0;
    }
    const unsigned char second = text[1];
    const bool overlong = (lead == 0xE0 && second < 0xA0) || (lead == 0xF0 && second < 0x90);
    const bool surrogate = lead == 0xED && second > 0x9F;
    const bool tooHigh = lead == 0xF4 && second > 0x8F;
    return overlong || surrogate || tooHigh ? 0 : length;
}

}  // namespace

bool isValidUtf8(std::string_view bytes) noexcept {
    const auto* at = reinterpret_cast<const unsigned char*>(bytes.data());
    const unsigned char* const end = at + bytes.size();
    while (at != end) {
        std::uint64_t word = 0;
        while (end - at >= 8 && (std::memcpy(&word, at, 8), (word & 0x8080808080808080ull) == 0)) at += 8;
        if (at == end) break;
        if (*at < 0x80) {
            ++at;
            continue;
        }
        const std::size_t length = sequenceLength(at, static_cast<std::size_t>(end - at));
        if (length == 0) return false;
        at += length;
    }
    return true;
}

}  // namespace velkor::NS
