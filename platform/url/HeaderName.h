#pragma once

#include <algorithm>
#include <string_view>

namespace velkor::NS::detail {

/// Whether both name the same header field: without regard to the case of ASCII letters, whatever the locale.
inline bool sameHeaderName(std::string_view one, std::string_view other) noexcept {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    return std::equal(one.begin(), one.end(), other.begin(), other.end(), [&](char a, char b) { return lower(a) == lower(b); });
}

}  // namespace velkor::NS::detail
