#include "platform/base/WireDate.h"

#include <cmath>

#include "platform/base/LocalTime.h"

namespace velkor::NS {

namespace {

constexpr std::int64_t secondsPerDay = 86400;
constexpr double widest = 4e11;  // seconds; well outside the years that can be written

char* writeTwo(char* out, std::int64_t number) noexcept {
    out[0] = static_cast<char>('0' + number / 10);
    out[1] = static_cast<char>('0' + number % 10);
    return out + 2;
}

}  // namespace

bool appendWireDate(std::string& out, Date date) {
    const double exact = date.timeIntervalSince1970();
    if (!(std::abs(exact) < widest)) return false;
    const auto instant = static_cast<std::int64_t>(std::floor(exact));
    const int offsetMinutes = localOffsetAt(instant) / 60;
    const std::int64_t local = instant + offsetMinutes * 60;
    const std::int64_t secondOfDay = (local % secondsPerDay + secondsPerDay) % secondsPerDay;
    const CalendarDay day = calendarDayOfDays((local - secondOfDay) / secondsPerDay);
    if (day.year < 1 || day.year > 9999) return false;

    char text[24];
    char* p = writeTwo(writeTwo(text, day.year / 100), day.year % 100);
    *p++ = '-';
    p = writeTwo(p, day.month);
    *p++ = '-';
    p = writeTwo(p, day.day);
    *p++ = 'T';
    p = writeTwo(p, secondOfDay / 3600);
    *p++ = ':';
    p = writeTwo(p, secondOfDay / 60 % 60);
    *p++ = ':';
    p = writeTwo(p, secondOfDay % 60);
    *p++ = offsetMinutes < 0 ? '-' : '+';
    p = writeTwo(p, std::abs(offsetMinutes) / 60);
    writeTwo(p, std::abs(offsetMinutes) % 60);
    out.append(text, sizeof text);
    return true;
}

std::optional<std::string> wireDateText(Date date) {
    std::string text;
    if (!appendWireDate(text, date)) return std::nullopt;
    return text;
}

}  // namespace velkor::NS
