// Decimal texts taken apart, for comparing numbers without rounding. Internal.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace velkor::NS {

/// A decimal number as sign, digits without leading or trailing zeros, and the power of ten of the last digit. Zero has no
/// digits.
struct DecimalParts {
    bool negative = false;
    std::string digits;
    std::int64_t exponent = 0;

    /// Reads "-12.50e3" and the like; none for any other text.
    static std::optional<DecimalParts> parse(std::string_view text);
    /// The number, when it is whole and within 64 bits.
    std::optional<std::int64_t> asInteger() const;
    /// Negative, 0 or positive: how the number compares with the other.
    int compare(const DecimalParts& other) const noexcept;
    bool operator==(const DecimalParts&) const = default;
};

}  // namespace velkor::NS
