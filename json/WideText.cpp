#include "json/WideText.h"

#include "platform/base/UTF8.h"

namespace velkor::detail {

Encoding encodingOf(std::string_view json) noexcept {
    if (json.size() < 4) return Encoding::utf8;
    int zeros = 0;
    for (int i = 0; i < 4; ++i) zeros = zeros << 1 | (json[static_cast<std::size_t>(i)] == 0);
    switch (zeros) {
        case 0b1110:
            return Encoding::utf32BigEndian;
        case 0b1010:
            return Encoding::utf16BigEndian;
        case 0b0111:
            return Encoding::utf32LittleEndian;
        case 0b0101:
            return Encoding::utf16LittleEndian;
        default:
            return Encoding::utf8;
    }
}

bool convertToUTF8(std::string_view wide, Encoding encoding, std::string& out) {
    const bool bigEndian = encoding == Encoding::utf16BigEndian || encoding == Encoding::utf32BigEndian;
    const std::size_t width = encoding == Encoding::utf16BigEndian || encoding == Encoding::utf16LittleEndian ? 2 : 4;
    if (wide.size() % width != 0) return false;
    auto unitAt = [&](std::size_t at) {
        char32_t unit = 0;
        for (std::size_t i = 0; i < width; ++i) {
            const auto byte = static_cast<unsigned char>(wide[at + (bigEndian ? i : width - 1 - i)]);
            unit = unit << 8 | byte;
        }
        return unit;
    };
    out.reserve(out.size() + wide.size() / width);
    for (std::size_t at = 0; at < wide.size(); at += width) {
        char32_t character = unitAt(at);
        if (width == 2 && character >= 0xD800 && character < 0xDC00 && at + 2 < wide.size()) {
            const char32_t low = unitAt(at += 2);
            if (low < 0xDC00 || low >= 0xE000) return false;
            character = 0x10000 + ((character - 0xD800) << 10) + (low - 0xDC00);
        }
        if (character > 0x10FFFF || (character >= 0xD800 && character < 0xE000)) return false;
        NS::appendUTF8(out, character);
    }
    return true;
}

}  // namespace velkor::detail
