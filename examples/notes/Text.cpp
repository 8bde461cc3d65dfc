#include "examples/notes/Text.h"

#include <VelkorSync/UTF8.h>

namespace notes {

namespace {

bool continuesCharacter(char byte) { return (static_cast<unsigned char>(byte) & 0xC0) == 0x80; }

}  // namespace

std::string printable(std::string_view text) {
    const bool isUtf8 = velkor::NS::isValidUTF8(text);
    std::string shown(text);
    for (std::size_t i = 0; i < shown.size(); ++i) {
        const auto byte = static_cast<unsigned char>(shown[i]);
        if (byte < 0x20 || byte == 0x7F) shown[i] = ' ';
        if (byte >= 0x80 && !isUtf8) shown[i] = '?';
        // U+0080 to U+009F steer some terminals, too.
        if (byte == 0xC2 && isUtf8 && static_cast<unsigned char>(shown[i + 1]) < 0xA0) shown.replace(i, 2, " ");
    }
    return shown;
}

std::string shortened(std::string text, std::size_t bytes) {
    if (text.size() <= bytes) return text;
    while (bytes > 0 && continuesCharacter(text[bytes])) --bytes;
    text.resize(bytes);
    return text;
}

std::string firstCharacters(std::string_view text, std::size_t characters) {
    std::size_t end = 0;
    for (; characters > 0 && end < text.size(); --characters) {
        do ++end;
        while (end < text.size() && continuesCharacter(text[end]));
    }
    return std::string(text.substr(0, end));
}

}  // namespace notes
