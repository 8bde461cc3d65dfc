// Calendar arithmetic in the user's time zone, without formatters. Days before 1582-10-15 are Julian, as in the user's calendar.
#pragma once

#include <cstdint>
#include <optional>

#include "platform/base/Export.h"

namespace velkor::NS {

/// A day of the calendar. Years count from 1 BC as 0.
struct CalendarDay {
    std::int64_t year = 1970;
    int month = 1;
    int day = 1;
    bool operator==(const CalendarDay&) const noexcept = default;
};

/// Days since 1970-01-01. Month and day may lie outside their ranges: they carry over.
VELKOR_EXPORT std::int64_t daysOfCalendarDay(CalendarDay day) noexcept;
VELKOR_EXPORT CalendarDay calendarDayOfDays(std::int64_t days) noexcept;

/// Seconds that local time is ahead of UTC at an instant (seconds since 1970). The last answers are remembered per thread.
VELKOR_EXPORT int localOffsetAt(std::int64_t instant) noexcept;
/// The instant of a local time, given as if it were UTC (seconds since 1970). A local time that occurs twice means the later one;
/// one that a change of the offset skips has none.
VELKOR_EXPORT std::optional<std::int64_t> instantOfLocalSeconds(std::int64_t localSeconds) noexcept;
/// The first instant of a local day, given in days since 1970-01-01.
VELKOR_EXPORT std::int64_t startOfLocalDay(std::int64_t days) noexcept;

/// To be called after the process's time zone was changed (the variable TZ): forgets what was remembered of the old one.
VELKOR_EXPORT void localTimeZoneChanged() noexcept;

}  // namespace velkor::NS
