#include "platform/base/LocalTime.h"

#include <ctime>

#include <algorithm>
#include <array>
#include <atomic>

namespace velkor::NS {

namespace {

constexpr std::int64_t secondsPerDay = 86400;
constexpr std::int64_t firstGregorianDay = -141427;  // 1582-10-15

constexpr std::int64_t floorDivide(std::int64_t a, std::int64_t b) noexcept { return a / b - (a % b < 0); }

// Years are counted from March, so that the leap day is the last day of its year.
constexpr int dayOfMarchYear(int month, int day) noexcept {
    return (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
}

constexpr std::int64_t gregorianDays(std::int64_t year, int month, int day) noexcept {
    year -= month <= 2;
    const std::int64_t era = floorDivide(year, 400);
    const std::int64_t yearOfEra = year - era * 400;
    return era * 146097 + yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfMarchYear(month, day) - 719468;
}

constexpr std::int64_t julianDays(std::int64_t year, int month, int day) noexcept {
    year -= month <= 2;
    return year * 365 + floorDivide(year, 4) + dayOfMarchYear(month, day) - 719470;
}

CalendarDay marchDay(std::int64_t year, std::int64_t dayOfYear) noexcept {
    const auto shifted = static_cast<int>((5 * dayOfYear + 2) / 153);
    CalendarDay result;
    result.month = shifted < 10 ? shifted + 3 : shifted - 9;
    result.day = static_cast<int>(dayOfYear) - (153 * shifted + 2) / 5 + 1;
    result.year = year + (result.month <= 2);
    return result;
}

/// Offsets of stretches of 18 hours at whose two ends the offset is the same.
class OffsetCache {
public:
    int offsetAt(std::int64_t instant) noexcept;

private:
    static constexpr int stretchBits = 16;
    struct Entry {
        std::int64_t stretch = INT64_MIN;
        int offset = 0;
    };
    std::array<Entry, 16> m_entries;
    std::uint64_t m_generation = 0;
};

std::atomic<std::uint64_t> zoneGeneration = 0;

int systemOffsetAt(std::int64_t instant) noexcept {
    const auto time = static_cast<std::time_t>(instant);
    std::tm local;
    return localtime_r(&time, &local) ? static_cast<int>(local.tm_gmtoff) : 0;
}

int OffsetCache::offsetAt(std::int64_t instant) noexcept {
    if (const auto generation = zoneGeneration.load(std::memory_order_relaxed); generation != m_generation) {
        m_entries.fill({});
        m_generation = generation;
    }
    const std::int64_t stretch = instant >> stretchBits;
    Entry& entry = m_entries[static_cast<std::size_t>(stretch) % m_entries.size()];
    if (entry.stretch == stretch) return entry.offset;
    const int first = systemOffsetAt(stretch << stretchBits);
    const int last = systemOffsetAt(((stretch + 1) << stretchBits) - 1);
    if (first != last) return systemOffsetAt(instant);
    entry = {stretch, first};
    return first;
}

}  // namespace

std::int64_t daysOfCalendarDay(CalendarDay day) noexcept {
    const std::int64_t carried = floorDivide(day.month - 1, 12);
    const std::int64_t year = day.year + carried;
    const auto month = static_cast<int>(day.month - carried * 12);
    const std::int64_t days = gregorianDays(year, month, 1) + day.day - 1;
    return days >= firstGregorianDay ? days : julianDays(year, month, 1) + day.day - 1;
}

CalendarDay calendarDayOfDays(std::int64_t days) noexcept {
    if (days < firstGregorianDay) {
        const std::int64_t shifted = days + 719470;
        const std::int64_t cycle = floorDivide(shifted, 1461);
        const std::int64_t dayOfCycle = shifted - cycle * 1461;
        const std::int64_t yearOfCycle = std::min<std::int64_t>(dayOfCycle / 365, 3);
        return marchDay(cycle * 4 + yearOfCycle, dayOfCycle - yearOfCycle * 365);
    }
    const std::int64_t shifted = days + 719468;
    const std::int64_t era = floorDivide(shifted, 146097);
    const std::int64_t dayOfEra = shifted - era * 146097;
    const std::int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    return marchDay(era * 400 + yearOfEra, dayOfEra - (yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100));
}

int localOffsetAt(std::int64_t instant) noexcept {
    thread_local OffsetCache cache;
    return cache.offsetAt(instant);
}

std::optional<std::int64_t> instantOfLocalSeconds(std::int64_t localSeconds) noexcept {
    // The offsets of a day earlier and later are those on both sides of any change nearby.
    std::optional<std::int64_t> latest;
    for (const int offset : {localOffsetAt(localSeconds - secondsPerDay), localOffsetAt(localSeconds + secondsPerDay)}) {
        const std::int64_t instant = localSeconds - offset;
        if (localOffsetAt(instant) == offset && (!latest || instant > *latest)) latest = instant;
    }
    return latest;
}

std::int64_t startOfLocalDay(std::int64_t days) noexcept {
    const std::int64_t midnight = days * secondsPerDay;
    const int before = localOffsetAt(midnight - secondsPerDay);
    const int after = localOffsetAt(midnight + secondsPerDay);
    const std::int64_t early = midnight - std::max(before, after);
    const std::int64_t late = midnight - std::min(before, after);
    if (early + localOffsetAt(early) == midnight) return early;
    if (late + localOffsetAt(late) == midnight) return late;
    // The clock skips midnight: the day starts at the change itself.
    std::int64_t low = early, high = late;
    while (low + 1 < high) {
        const std::int64_t middle = low + (high - low) / 2;
        (localOffsetAt(middle) == before ? low : high) = middle;
    }
    return high;
}

void localTimeZoneChanged() noexcept {
    tzset();
    zoneGeneration.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace velkor::NS
