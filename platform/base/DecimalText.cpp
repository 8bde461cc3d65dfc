#include "platform/base/DecimalText.h"

#include <charconv>

namespace velkor::NS {
namespace {

bool takeDigits(std::string_view& text, std::string& digits) {
    std::size_t count = 0;
    while (count < text.size() && text[count] >= '0' && text[count] <= '9') ++count;
    digits += text.substr(0, count);
    text.remove_prefix(count);
    return count != 0;
}

int signOf(std::int64_t difference) noexcept { return difference < 0 ? -1 : difference > 0 ? 1 : 0; }

int signOf(const DecimalParts& number) noexcept { return number.digits.empty() ? 0 : number.negative ? -1 : 1; }

/// Compares the sizes of two numbers that are not zero.
int compareMagnitudes(const DecimalParts& left, const DecimalParts& right) noexcept {
    const auto places = [](const DecimalParts& number) {
        return number.exponent + static_cast<std::int64_t>(number.digits.size());
    };
    if (places(left) != places(right)) return signOf(places(left) - places(right));
    return signOf(left.digits.compare(right.digits));  // digits have no zeros at either end
}

}  // namespace

int DecimalParts::compare(const DecimalParts& other) const noexcept {
    const int sign = signOf(*this);
    if (sign != signOf(other)) return signOf(sign - signOf(other));
    return sign == 0 ? 0 : sign * compareMagnitudes(*this, other);
}

std::optional<DecimalParts> DecimalParts::parse(std::string_view text) {
    DecimalParts parts;
    if (text.starts_with('-') || text.starts_with('+')) {
        parts.negative = text.front() == '-';
        text.remove_prefix(1);
    }
    bool some = takeDigits(text, parts.digits);
    if (text.starts_with('.')) {
        text.remove_prefix(1);
        const std::size_t whole = parts.digits.size();
        some = takeDigits(text, parts.digits) || some;
        parts.exponent = -static_cast<std::int64_t>(parts.digits.size() - whole);
    }
    if (!some) return std::nullopt;
    if (text.starts_with('e') || text.starts_with('E')) {
        text.remove_prefix(1);
        if (text.starts_with('+')) {
            text.remove_prefix(1);
            if (text.starts_with('-')) return std::nullopt;
        }
        std::int32_t power = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), power);
        if (error != std::errc()) return std::nullopt;
        text.remove_prefix(static_cast<std::size_t>(end - text.data()));
        parts.exponent += power;
    }
    if (!text.empty()) return std::nullopt;
    parts.digits.erase(0, parts.digits.find_first_not_of('0'));
    const std::size_t significant = parts.digits.find_last_not_of('0') + 1;
    parts.exponent += static_cast<std::int64_t>(parts.digits.size() - significant);
    parts.digits.resize(significant);
    if (parts.digits.empty()) return DecimalParts();
    return parts;
}

std::optional<std::int64_t> DecimalParts::asInteger() const {
    if (digits.empty()) return 0;
    if (exponent < 0 || exponent > 19 || digits.size() > 19) return std::nullopt;
    const std::string text = (negative ? "-" : "") + digits + std::string(static_cast<std::size_t>(exponent), '0');
    std::int64_t value = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    return result.ec == std::errc() ? std::optional(value) : std::nullopt;
}

}  // namespace velkor::NS
