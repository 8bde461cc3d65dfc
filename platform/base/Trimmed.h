#pragma once

#include <string_view>

namespace velkor::NS {

/// The text without the blanks, tabs and line ends around it.
inline std::string_view trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\r\n";
    const std::size_t first = text.find_first_not_of(blanks);
    return first == std::string_view::npos ? std::string_view() : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

}  // namespace velkor::NS
