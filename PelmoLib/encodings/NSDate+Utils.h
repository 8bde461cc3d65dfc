#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/base/Date.h"
#include "platform/base/Export.h"

namespace velkor {

// Days are those of the user's time zone; a midnight is the first instant of its day.
VELKOR_EXPORT NS::Date todayAtMidnight();
VELKOR_EXPORT NS::Date tomorrowAtMidnight();
VELKOR_EXPORT NS::Date dateAtMidnight(NS::Date date);
/// Midnight of the day that lies `days` after (or, negative, before) the date's day.
VELKOR_EXPORT NS::Date dateByAddingDays(NS::Date date, std::int64_t days);
VELKOR_EXPORT bool sameDayAsDate(NS::Date date, NS::Date other);

/// Pattern "yyyy-MM-dd'T'HH:mm:ssZ" in local time; empty for a date outside the years 0001 to 9999.
VELKOR_EXPORT std::string toISO8601(NS::Date date);
/// The first of these patterns that the whole text fits, strictly: "yyyy-MM-dd'T'HH:mm:ssZ" (numeric offset),
/// "yyyy-MM-dd'T'HH:mm:ss'Z'" (a literal Z: local time), "yyyy-MM-dd" (local midnight) and
/// "yyyy'-'MM'-'dd'T'HH':'mm':'ssz':'00" (zone name or offset). None when no pattern fits.
VELKOR_EXPORT std::optional<NS::Date> dateWithISO8601Date(std::string_view text);
/// Pattern "yyyy/MM/dd" in local time, and back.
VELKOR_EXPORT std::string toYYYYMMDD(NS::Date date);
VELKOR_EXPORT std::optional<NS::Date> dateWithYYYYMMDD(std::string_view text);
/// Pattern "yyyyMMddHHmmssSSSS" in local time, and back; the last four digits are ten-thousandths of a second.
VELKOR_EXPORT std::string toYYYYMMDDhhmmss(NS::Date date);
VELKOR_EXPORT std::optional<NS::Date> dateWithYYYYMMDDhhmmss(std::string_view text);

/// "Today", "Yesterday", a weekday of the last seven days or later, or "Mar 5, 2013", in the user's language.
VELKOR_EXPORT std::string niceDescription(NS::Date date);
/// The same with the time: "Today @ 3:15 PM", or "Mar 5, 2013 @ 03:15".
VELKOR_EXPORT std::string niceDescriptionWithTime(NS::Date date);
/// The date in full as the user's language writes it: "Tuesday, March 5, 2013 at 10:00:00 AM Central European Standard Time".
VELKOR_EXPORT std::string descriptionWithCurrentLocale(NS::Date date);

}  // namespace velkor
