#include "PelmoLib/encodings/NSString+URLEncode.h"

#include <cstdint>

#include "platform/base/UTF8.h"

namespace velkor {

namespace {

/// The characters that urlEncode escapes, in the order in which it replaces them; "%" comes last.
constexpr std::string_view escapedCharacters = ";/?:@&=+$,[]#!'()* ^~`<>%";
/// What simpleUrlEncode leaves alone besides ASCII letters and digits.
constexpr std::string_view simpleCharacters = "-_.!~*'();/?:@&=+$,";

bool isLetterOrDigit(char c) noexcept { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

void appendEscape(std::string& out, char c) {
    constexpr char digits[] = "0123456789ABCDEF";
    out.push_back('%');
    out.push_back(digits[static_cast<unsigned char>(c) >> 4]);
    out.push_back(digits[c & 0x0F]);
}

int hexadecimalDigit(char c) noexcept {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

}  // namespace

std::string simpleUrlEncode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        if (isLetterOrDigit(c) || simpleCharacters.find(c) != simpleCharacters.npos) {
            out.push_back(c);
        } else {
            appendEscape(out, c);
        }
    }
    return out;
}

std::optional<std::string> simpleUrlDecode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out.push_back(text[i]);
            continue;
        }
        if (text.size() - i < 3) return std::nullopt;
        const int high = hexadecimalDigit(text[i + 1]);
        const int low = hexadecimalDigit(text[i + 2]);
        if (high < 0 || low < 0) return std::nullopt;
        out.push_back(static_cast<char>(high << 4 | low));
        i += 2;
    }
    if (!NS::isValidUTF8(out)) return std::nullopt;
    return out;
}

// Since "%" is replaced last, the "%" of every other escape is escaped once more: one pass does it.
std::string urlEncode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        if (c == '%') {
            out.append("%25");
        } else if (escapedCharacters.find(c) != escapedCharacters.npos) {
            std::string escape;
            appendEscape(escape, c);
            out.append("%25").append(escape, 1);
        } else {
            out.push_back(c);
        }
    }
    return out;
}

// No escape contains another's "%", and what an escape becomes starts none but through the last pair: one pass does it here too.
std::string urlDecode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && text.size() - i >= 3) {
            const int high = hexadecimalDigit(text[i + 1]);
            const int low = hexadecimalDigit(text[i + 2]);
            const auto c = static_cast<char>(high << 4 | low);
            std::string escape;
            appendEscape(escape, c);
            // Only the escapes of the 25 pairs, in their upper-case spelling.
            if (high >= 0 && low >= 0 && escapedCharacters.find(c) != escapedCharacters.npos && text.substr(i, 3) == escape) {
                out.push_back(c);
                i += 2;
                continue;
            }
        }
        out.push_back(text[i]);
    }
    return out;
}

}  // namespace velkor
