#pragma once

#include <optional>
#include <string>

#include "platform/base/Date.h"
#include "platform/base/Export.h"

namespace velkor::NS {

/// Appends the date in the pattern "yyyy-MM-dd'T'HH:mm:ssZ": local time with a numeric offset, such as
/// 2011-03-04T17:05:09+0100. Fractions of a second are dropped (towards the past). Where the zone's offset has seconds, the
/// whole-minute offset is written and the local time computed with it, so that the text reads back equal. Returns false and
/// appends nothing for a date outside the years 0001 to 9999 or not a number. Any thread.
VELKOR_EXPORT bool appendWireDate(std::string& out, Date date);
/// The same as a text of its own, or none.
VELKOR_EXPORT std::optional<std::string> wireDateText(Date date);

}  // namespace velkor::NS
