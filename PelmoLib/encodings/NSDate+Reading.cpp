// The strict readers of date texts: the whole text must fit, no field may be out of range.
#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>

#include "PelmoLib/encodings/NSDate+Utils.h"
#include "platform/base/LocalTime.h"

namespace velkor {

namespace {

constexpr std::int64_t secondsPerDay = 86400;

/// Takes fields from the front of a text. After a field that does not fit, `ok()` is false.
class FieldReader {
public:
    explicit FieldReader(std::string_view text) noexcept : m_rest(text) {}

    bool ok() const noexcept { return m_ok; }
    bool isAtEnd() const noexcept { return m_rest.empty(); }
    std::string_view rest() const noexcept { return m_rest; }
    int digits(std::size_t count) noexcept {
        int number = 0;
        m_ok = m_ok && m_rest.size() >= count;
        for (std::size_t i = 0; m_ok && i < count; ++i) {
            m_ok = m_rest[i] >= '0' && m_rest[i] <= '9';
            number = number * 10 + (m_rest[i] - '0');
        }
        if (m_ok) m_rest.remove_prefix(count);
        return number;
    }
    void literal(char c) noexcept {
        m_ok = m_ok && m_rest.starts_with(c);
        if (m_ok) m_rest.remove_prefix(1);
    }
    void require(bool condition) noexcept { m_ok = m_ok && condition; }
    /// Year, month and day with `separator` between them (0: none), as days since 1970.
    std::int64_t day(char separator) noexcept {
        NS::CalendarDay day;
        day.year = digits(4);
        if (separator) literal(separator);
        day.month = digits(2);
        if (separator) literal(separator);
        day.day = digits(2);
        require(day.year >= 1 && day.month >= 1 && day.day >= 1);
        const std::int64_t days = NS::daysOfCalendarDay(day);
        require(NS::calendarDayOfDays(days) == day);
        return days;
    }
    /// Hours, minutes and seconds, as seconds.
    int time(bool colons) noexcept {
        const int hour = digits(2);
        if (colons) literal(':');
        const int minute = digits(2);
        if (colons) literal(':');
        const int second = digits(2);
        require(hour < 24 && minute < 60 && second < 60);
        return (hour * 60 + minute) * 60 + second;
    }

private:
    std::string_view m_rest;
    bool m_ok = true;
};

/// "+hhmm", "+hh:mm" or "+hhmmss" (and "+h", "+hh" when `hoursAlone`), the whole text, as seconds.
std::optional<int> numericOffset(std::string_view text, bool hoursAlone) {
    if (!text.starts_with('+') && !text.starts_with('-')) return std::nullopt;
    const int sign = text.front() == '-' ? -1 : 1;
    text.remove_prefix(1);
    FieldReader reader(text);
    if (hoursAlone && (text.size() == 1 || text.size() == 2)) {
        const int hours = reader.digits(text.size());
        return reader.ok() && hours < 24 ? std::optional(sign * hours * 3600) : std::nullopt;
    }
    const int hours = reader.digits(2);
    if (text.size() == 5) reader.literal(':');
    const int minutes = reader.digits(2);
    const int seconds = text.size() == 6 ? reader.digits(2) : 0;
    if (!reader.ok() || !reader.isAtEnd() || hours >= 24 || minutes >= 60 || seconds >= 60) return std::nullopt;
    return sign * ((hours * 60 + minutes) * 60 + seconds);
}

struct ZoneName {
    std::string_view name;
    int hours;
};
/// Zone names that mean one offset wherever they are read.
constexpr std::array zoneNames = {ZoneName{"GMT", 0},   ZoneName{"UTC", 0},  ZoneName{"UT", 0},   ZoneName{"WET", 0},
                                  ZoneName{"WEST", 1},  ZoneName{"CET", 1},  ZoneName{"CEST", 2}, ZoneName{"EET", 2},
                                  ZoneName{"EEST", 3},  ZoneName{"MSK", 3},  ZoneName{"JST", 9},  ZoneName{"EST", -5},
                                  ZoneName{"EDT", -4},  ZoneName{"CST", -6}, ZoneName{"CDT", -5}, ZoneName{"MST", -7},
                                  ZoneName{"MDT", -6},  ZoneName{"PST", -8}, ZoneName{"PDT", -7}, ZoneName{"AKST", -9},
                                  ZoneName{"AKDT", -8}, ZoneName{"HST", -10}};

/// A zone's name, an offset, or GMT with an offset ("GMT+1"), as seconds.
std::optional<int> zoneOffset(std::string_view text) {
    if (const auto offset = numericOffset(text, true)) return offset;
    std::string name(text);
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    for (const ZoneName& zone : zoneNames) {
        if (name == zone.name) return zone.hours * 3600;
    }
    if (name.starts_with("GMT") || name.starts_with("UTC")) return numericOffset(text.substr(3), true);
    return std::nullopt;
}

NS::Date dateOf(std::int64_t instant) { return NS::Date(static_cast<double>(instant)); }

std::optional<NS::Date> dateOfLocalSeconds(std::int64_t seconds) {
    const auto instant = NS::instantOfLocalSeconds(seconds);
    return instant ? std::optional(dateOf(*instant)) : std::nullopt;
}

}  // namespace

std::optional<NS::Date> dateWithISO8601Date(std::string_view text) {
    FieldReader reader(text);
    const std::int64_t day = reader.day('-');
    if (!reader.ok()) return std::nullopt;
    if (reader.isAtEnd()) return dateOf(NS::startOfLocalDay(day));
    reader.literal('T');
    const std::int64_t seconds = day * secondsPerDay + reader.time(true);
    if (!reader.ok()) return std::nullopt;
    if (const auto offset = numericOffset(reader.rest(), false)) return dateOf(seconds - *offset);
    if (reader.rest() == "Z") return dateOfLocalSeconds(seconds);
    if (!reader.rest().ends_with(":00")) return std::nullopt;
    const auto offset = zoneOffset(reader.rest().substr(0, reader.rest().size() - 3));
    return offset ? std::optional(dateOf(seconds - *offset)) : std::nullopt;
}

std::optional<NS::Date> dateWithYYYYMMDD(std::string_view text) {
    FieldReader reader(text);
    const std::int64_t day = reader.day('/');
    return reader.ok() && reader.isAtEnd() ? std::optional(dateOf(NS::startOfLocalDay(day))) : std::nullopt;
}

std::optional<NS::Date> dateWithYYYYMMDDhhmmss(std::string_view text) {
    FieldReader reader(text);
    const std::int64_t day = reader.day(0);
    const int time = reader.time(false);
    const int fraction = reader.digits(4);
    if (!reader.ok() || !reader.isAtEnd()) return std::nullopt;
    const auto date = dateOfLocalSeconds(day * secondsPerDay + time);
    return date ? std::optional(date->dateByAddingTimeInterval(fraction / 10000.0)) : std::nullopt;
}

}  // namespace velkor
