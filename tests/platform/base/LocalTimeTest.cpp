#include "platform/base/LocalTime.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <limits>

#include "platform/base/WireDate.h"

namespace velkor::NS {
namespace {

void setTimeZone(const char* zone) {
    ::setenv("TZ", zone, 1);
    localTimeZoneChanged();
}

std::int64_t local(std::int64_t year, int month, int day, int hour = 0, int minute = 0) {
    return daysOfCalendarDay({year, month, day}) * 86400 + hour * 3600 + minute * 60;
}

TEST(LocalTimeTest, countsDays) {
    const struct {
        CalendarDay day;
        std::int64_t days;
    } cases[] = {
        {{1970, 1, 1}, 0},        {{1969, 12, 31}, -1},      {{2000, 2, 29}, 11016},
        {{2013, 3, 5}, 15769},    {{1582, 10, 15}, -141427}, {{1582, 10, 4}, -141428},  // the calendar leaps over ten days
        {{1500, 2, 29}, -171596},                                                       // a leap day of the Julian calendar only
        {{1, 1, 1}, -719164},     {{9999, 12, 31}, 2932896},
    };
    for (const auto& [day, days] : cases) {
        EXPECT_EQ(daysOfCalendarDay(day), days) << day.year;
        EXPECT_EQ(calendarDayOfDays(days), day) << day.year;
    }
    for (std::int64_t days = -800000; days < 3000000; days += 7) ASSERT_EQ(daysOfCalendarDay(calendarDayOfDays(days)), days);
    EXPECT_EQ(daysOfCalendarDay({2012, 14, 31}), daysOfCalendarDay({2013, 3, 3}));
    EXPECT_EQ(daysOfCalendarDay({2013, 0, 1}), daysOfCalendarDay({2012, 12, 1}));
}

TEST(LocalTimeTest, followsTheZonesChanges) {
    setTimeZone("Europe/Berlin");
    EXPECT_EQ(localOffsetAt(local(2013, 3, 31, 1) - 1), 3600);
    EXPECT_EQ(localOffsetAt(local(2013, 3, 31, 1)), 7200);
    EXPECT_EQ(instantOfLocalSeconds(local(2013, 3, 31, 1, 59)), local(2013, 3, 31, 0, 59));
    EXPECT_EQ(instantOfLocalSeconds(local(2013, 3, 31, 2, 30)), std::nullopt);
    EXPECT_EQ(instantOfLocalSeconds(local(2013, 3, 31, 3)), local(2013, 3, 31, 1));
    EXPECT_EQ(instantOfLocalSeconds(local(2013, 10, 27, 2, 30)), local(2013, 10, 27, 1, 30));  // the later of two
    setTimeZone("America/New_York");
    EXPECT_EQ(localOffsetAt(local(2013, 3, 31, 1)), -4 * 3600);
}

TEST(LocalTimeTest, findsTheFirstInstantOfADay) {
    const struct {
        const char* zone;
        std::int64_t day;
        std::int64_t start;
    } cases[] = {
        {"UTC", local(2013, 3, 5), local(2013, 3, 5)},
        {"Europe/Berlin", local(2013, 3, 31), local(2013, 3, 30, 23)},
        {"America/Sao_Paulo", local(2013, 10, 20), local(2013, 10, 20, 3)},  // midnight is skipped: the day starts at 01:00
        {"America/Havana", local(2013, 11, 3), local(2013, 11, 3, 4)},       // midnight comes twice
        {"Asia/Kathmandu", local(2013, 3, 5), local(2013, 3, 4, 18, 15)},
    };
    for (const auto& [zone, day, start] : cases) {
        setTimeZone(zone);
        EXPECT_EQ(startOfLocalDay(day / 86400), start) << zone;
    }
}

TEST(LocalTimeTest, remembersOffsetsWithoutMissingAChange) {
    for (const char* zone :
         {"Europe/Berlin", "America/Sao_Paulo", "Australia/Lord_Howe", "Africa/Casablanca", "Pacific/Apia", "Africa/Monrovia"}) {
        setTimeZone(zone);
        for (std::int64_t instant = -3'000'000'000; instant < 3'000'000'000; instant += 9001) {
            const auto time = static_cast<std::time_t>(instant);
            std::tm expected;
            localtime_r(&time, &expected);
            ASSERT_EQ(localOffsetAt(instant), expected.tm_gmtoff) << zone << instant;
        }
    }
}

TEST(WireDateTest, writesLocalTimeWithAWholeMinuteOffset) {
    const struct {
        const char* zone;
        double seconds;
        std::string_view text;
    } cases[] = {
        {"Europe/Berlin", 1299254709.999, "2011-03-04T17:05:09+0100"},
        {"Europe/Berlin", 1362478199.0, "2013-03-05T11:09:59+0100"},
        {"America/St_Johns", -0.25, "1969-12-31T20:29:59-0330"},
        {"Asia/Kathmandu", 0, "1970-01-01T05:30:00+0530"},
        {"Europe/Berlin", -2840140800.0, "1880-01-01T00:53:00+0053"},  // the zone's offset was +00:53:28
        {"America/New_York", -2840140800.0, "1879-12-31T19:04:00-0456"},
        {"UTC", -62135769600.0, "0001-01-01T00:00:00+0000"},
        {"UTC", 253402300799.0, "9999-12-31T23:59:59+0000"},
        {"UTC", -62135769601.0, ""},
        {"UTC", 253402300800.0, ""},
        {"UTC", 1e300, ""},
        {"UTC", std::numeric_limits<double>::quiet_NaN(), ""},
    };
    for (const auto& [zone, seconds, text] : cases) {
        setTimeZone(zone);
        EXPECT_EQ(wireDateText(Date(seconds)).value_or(""), text) << zone;
    }
}

}  // namespace
}  // namespace velkor::NS
