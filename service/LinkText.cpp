#include "service/LinkText.h"

#include <array>

namespace velkor::service {
namespace {

constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

constexpr auto values = [] {
    std::array<std::uint8_t, 256> table{};
    table.fill(255);
    for (std::size_t i = 0; i < alphabet.size(); ++i)
        table[static_cast<unsigned char>(alphabet[i])] = static_cast<std::uint8_t>(i);
    return table;
}();

char* put(char* out, std::uint64_t number) {
    for (; number >= 32; number >>= 5) *out++ = alphabet[32 | (number & 31)];
    *out++ = alphabet[number];
    return out;
}

bool take(std::string_view& text, std::uint64_t& number) {
    number = 0;
    for (unsigned shift = 0; shift < 60 && !text.empty(); shift += 5) {
        const auto value = values[static_cast<unsigned char>(text.front())];
        if (value == 255) return false;
        text.remove_prefix(1);
        number |= std::uint64_t(value & 31) << shift;
        if (value < 32) return true;
    }
    return false;
}

}  // namespace

void appendLink(std::string& text, const Link& link) {
    char buffer[64];
    char* end = put(buffer, link.key);
    end = put(end, link.other);
    end = put(end, static_cast<std::uint64_t>(link.number));
    end = put(end, static_cast<std::uint64_t>(link.instance) * 2 + link.present);
    text.append(buffer, static_cast<std::size_t>(end - buffer));
}

bool takeLink(std::string_view& text, Link& link) {
    std::uint64_t key, other, number, rest;
    if (!take(text, key) || !take(text, other) || !take(text, number) || !take(text, rest)) return false;
    link = {static_cast<std::uint32_t>(key), static_cast<std::uint32_t>(other), static_cast<std::int64_t>(number),
            static_cast<std::int64_t>(rest / 2), rest % 2 == 1};
    return true;
}

}  // namespace velkor::service
