#include "PelmoLib/encodings/NSDate+Utils.h"

#include <algorithm>
#include <cmath>

#include "platform/base/Format.h"
#include "platform/base/LocalTime.h"
#include "platform/base/WireDate.h"

namespace velkor {

namespace {

constexpr std::int64_t secondsPerDay = 86400;
constexpr double fractionsPerSecond = 10000;
// Dates further away than a million years are taken for that.
constexpr double widest = 3e13;

std::int64_t wholeSeconds(double seconds) noexcept {
    return std::isnan(seconds) ? 0 : static_cast<std::int64_t>(std::floor(std::clamp(seconds, -widest, widest)));
}

/// Local time of an instant as if it were UTC.
std::int64_t localSecondsAt(std::int64_t instant) noexcept { return instant + NS::localOffsetAt(instant); }

std::int64_t dayOfLocalSeconds(std::int64_t local) noexcept { return local / secondsPerDay - (local % secondsPerDay < 0); }

std::int64_t localDayOf(NS::Date date) noexcept {
    return dayOfLocalSeconds(localSecondsAt(wholeSeconds(date.timeIntervalSince1970())));
}

NS::Date midnightOf(std::int64_t day) noexcept { return NS::Date(static_cast<double>(NS::startOfLocalDay(day))); }

}  // namespace

NS::Date todayAtMidnight() { return dateAtMidnight(NS::Date::now()); }
NS::Date tomorrowAtMidnight() { return dateByAddingDays(NS::Date::now(), 1); }
NS::Date dateAtMidnight(NS::Date date) { return midnightOf(localDayOf(date)); }
NS::Date dateByAddingDays(NS::Date date, std::int64_t days) { return midnightOf(localDayOf(date) + days); }
bool sameDayAsDate(NS::Date date, NS::Date other) { return localDayOf(date) == localDayOf(other); }

std::string toISO8601(NS::Date date) { return NS::wireDateText(date).value_or(""); }

std::string toYYYYMMDD(NS::Date date) {
    const NS::CalendarDay day = NS::calendarDayOfDays(localDayOf(date));
    return NS::format("%04lld/%02d/%02d", day.year, day.month, day.day);
}

std::string toYYYYMMDDhhmmss(NS::Date date) {
    // The nearest double of a decimal fraction may lie just below it.
    const double fractions = std::floor(std::clamp(date.timeIntervalSince1970(), -widest, widest) * fractionsPerSecond + 0.01);
    const std::int64_t instant = wholeSeconds(fractions / fractionsPerSecond);
    const auto fraction = static_cast<int>(fractions - static_cast<double>(instant) * fractionsPerSecond);
    const std::int64_t local = localSecondsAt(instant);
    const std::int64_t dayNumber = dayOfLocalSeconds(local);
    const NS::CalendarDay day = NS::calendarDayOfDays(dayNumber);
    const auto second = static_cast<int>(local - dayNumber * secondsPerDay);
    return NS::format("%04lld%02d%02d%02d%02d%02d%04d", day.year, day.month, day.day, second / 3600, second / 60 % 60,
                      second % 60, fraction);
}

}  // namespace velkor
