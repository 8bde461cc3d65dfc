// The order of decimal numbers that are kept as texts. Internal to the object store.
#pragma once

#include <sqlite3.h>

namespace velkor::NS::sqlite {

/// Name under which queries ask for the order of numbers instead of the order of texts.
inline constexpr const char* decimalCollation = "velkor_decimal";
/// Makes the collation known to a connection; returns an SQLite result code.
int addDecimalCollation(sqlite3* connection) noexcept;

}  // namespace velkor::NS::sqlite
