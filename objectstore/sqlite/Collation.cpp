#include "objectstore/sqlite/Collation.h"

#include <string_view>

#include "platform/base/DecimalText.h"

namespace velkor::NS::sqlite {

namespace {

int sign(std::int64_t difference) noexcept { return difference < 0 ? -1 : difference > 0 ? 1 : 0; }

/// Compares the sizes of two numbers that are not zero.
int compareMagnitudes(const DecimalParts& left, const DecimalParts& right) {
    const auto places = [](const DecimalParts& number) {
        return number.exponent + static_cast<std::int64_t>(number.digits.size());
    };
    if (places(left) != places(right)) return sign(places(left) - places(right));
    return sign(left.digits.compare(right.digits));  // digits have no zeros at either end
}

int compareDecimals(const DecimalParts& left, const DecimalParts& right) {
    const auto signOf = [](const DecimalParts& number) { return number.digits.empty() ? 0 : number.negative ? -1 : 1; };
    if (signOf(left) != signOf(right)) return sign(signOf(left) - signOf(right));
    return signOf(left) * (signOf(left) == 0 ? 0 : compareMagnitudes(left, right));
}

int collate(void*, int leftSize, const void* left, int rightSize, const void* right) {
    const std::string_view leftText(static_cast<const char*>(left), static_cast<std::size_t>(leftSize));
    const std::string_view rightText(static_cast<const char*>(right), static_cast<std::size_t>(rightSize));
    const auto leftNumber = DecimalParts::parse(leftText);
    const auto rightNumber = DecimalParts::parse(rightText);
    if (leftNumber && rightNumber) return compareDecimals(*leftNumber, *rightNumber);
    // Only a damaged file holds other texts; they stand before all numbers.
    if (leftNumber || rightNumber) return leftNumber ? 1 : -1;
    return sign(leftText.compare(rightText));
}

}  // namespace

int addDecimalCollation(sqlite3* connection) noexcept {
    return sqlite3_create_collation(connection, decimalCollation, SQLITE_UTF8, nullptr, collate);
}

}  // namespace velkor::NS::sqlite
