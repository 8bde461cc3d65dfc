#include "objectstore/sqlite/Collation.h"

#include <string_view>

#include "platform/base/DecimalText.h"

namespace velkor::NS::sqlite {

namespace {

int collate(void*, int leftSize, const void* left, int rightSize, const void* right) {
    const std::string_view leftText(static_cast<const char*>(left), static_cast<std::size_t>(leftSize));
    const std::string_view rightText(static_cast<const char*>(right), static_cast<std::size_t>(rightSize));
    const auto leftNumber = DecimalParts::parse(leftText);
    const auto rightNumber = DecimalParts::parse(rightText);
    if (leftNumber && rightNumber) return leftNumber->compare(*rightNumber);
    // Only a damaged file holds other texts; they stand before all numbers.
    if (leftNumber || rightNumber) return leftNumber ? 1 : -1;
    return leftText.compare(rightText);
}

}  // namespace

int addDecimalCollation(sqlite3* connection) noexcept {
    return sqlite3_create_collation(connection, decimalCollation, SQLITE_UTF8, nullptr, collate);
}

}  // namespace velkor::NS::sqlite
