#include "PelmoLib/encodings/NSDate+Utils.h"

#include <gtest/gtest.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>

#include <cmath>
#include <cstdlib>
#include <memory>
#include <random>

#include "platform/base/Format.h"
#include "platform/base/LocalTime.h"
#include "platform/persistence/Bundle.h"

namespace velkor {
namespace {

using NS::Date;

void setTimeZone(const char* zone) {
    ::setenv("TZ", zone, 1);
    NS::localTimeZoneChanged();
}

std::optional<double> secondsOf(std::string_view text) {
    const auto date = dateWithISO8601Date(text);
    return date ? std::optional(date->timeIntervalSince1970()) : std::nullopt;
}

constexpr double march5 = 1362438000;  // 2013-03-05 00:00:00 in Berlin

TEST(NSDateUtilsTest, readsTheFourPatternsStrictly) {
    setTimeZone("Europe/Berlin");
    const struct {
        std::string_view text;
        std::optional<double> seconds;
    } cases[] = {
        {"2013-03-05T10:00:00+0100", march5 + 36000},
        {"2013-03-05T10:00:00-0530", march5 + 36000 + 3600 + 5.5 * 3600},
        {"2013-03-05T10:00:00+01:00", march5 + 36000},
        {"2013-03-05T10:00:00+05:30", march5 + 39600 - 5.5 * 3600},
        {"1880-01-01T00:53:28+005328", -2840140800},
        {"2013-03-05T10:00:00Z", march5 + 36000},  // local time, not UTC
        {"2013-07-05T10:00:00Z", 1373011200},
        {"2013-03-31T02:30:00Z", std::nullopt},  // there is no such local time
        {"2013-03-05", march5},
        {"2013-03-05T10:00:00CET:00", march5 + 36000},
        {"2013-03-05T10:00:00cest:00", march5 + 32400},
        {"2013-03-05T10:00:00GMT:00", march5 + 39600},
        {"2013-03-05T10:00:00GMT+1:00", march5 + 36000},
        {"2013-03-05T10:00:00GMT-0530:00", march5 + 39600 + 5.5 * 3600},
        {"2013-03-05T10:00:00PST:00", march5 + 39600 + 8 * 3600},
        {"2013-03-05T10:00:00+0100:00", march5 + 36000},
        {"0001-01-01T00:00:00+0000", -62135769600},
        {"9999-12-31T23:59:59+0000", 253402300799},
        {"1500-02-29T00:00:00+0000", -14825894400},
        {"2012-02-29", 1330470000},
        {"", std::nullopt},
        {"2013", std::nullopt},
        {"2013-02-29", std::nullopt},
        {"2013-02-30", std::nullopt},
        {"2013-13-05", std::nullopt},
        {"2013-00-05", std::nullopt},
        {"2013-03-00", std::nullopt},
        {"0000-03-05", std::nullopt},
        {"1582-10-10", std::nullopt},
        {"2013/03/05", std::nullopt},
        {"13-03-05", std::nullopt},
        {"2013-3-5", std::nullopt},
        {" 2013-03-05", std::nullopt},
        {"2013-03-05 ", std::nullopt},
        {"2013-03-05T10:00:00", std::nullopt},
        {"2013-03-05T10:00:00z", std::nullopt},
        {"2013-03-05t10:00:00Z", std::nullopt},
        {"2013-03-05T24:00:00Z", std::nullopt},
        {"2013-03-05T10:60:00Z", std::nullopt},
        {"2013-03-05T10:00:60Z", std::nullopt},
        {"2013-03-05T10:00:00ZZ", std::nullopt},
        {"2013-03-05T10:00:00+01", std::nullopt},
        {"2013-03-05T10:00:00+0160", std::nullopt},
        {"2013-03-05T10:00:00+2400", std::nullopt},
        {"2013-03-05T10:00:00+01000", std::nullopt},
        {"2013-03-05T10:00:00.5+0100", std::nullopt},
        {"2013-03-05T10:00:00XYZ:00", std::nullopt},
        {"2013-03-05T10:00:00:00", std::nullopt},
    };
    for (const auto& [text, seconds] : cases) EXPECT_EQ(secondsOf(text), seconds) << text;
}

TEST(NSDateUtilsTest, writesWireDatesAsTheSystemsFormatterDoes) {
    std::mt19937_64 random(4);
    for (const char* zone : {"Europe/Berlin", "America/New_York", "Asia/Kathmandu", "Australia/Lord_Howe", "America/St_Johns",
                             "Pacific/Kiritimati", "UTC"}) {
        setTimeZone(zone);
        UErrorCode status = U_ZERO_ERROR;
        icu::SimpleDateFormat formatter(icu::UnicodeString(u"yyyy-MM-dd'T'HH:mm:ssZ"), icu::Locale("en_US_POSIX"), status);
        formatter.adoptTimeZone(icu::TimeZone::createTimeZone(zone));
        const auto expected = [&](double seconds) {
            icu::UnicodeString text;
            formatter.format(seconds * 1000, text);
            std::string utf8;
            return text.toUTF8String(utf8);
        };
        for (int i = 0; i < 5000; ++i) {
            const double seconds = std::floor(std::uniform_real_distribution(0.0, 4e9)(random)) + (i % 2) * 0.75;
            ASSERT_EQ(toISO8601(Date(seconds)), expected(seconds)) << zone;
        }
        if (std::string_view(zone) != "UTC") continue;
        for (int i = 0; i < 5000; ++i) {
            const double seconds = std::uniform_real_distribution(-6.21357e10, 2.534e11)(random);
            ASSERT_EQ(toISO8601(Date(seconds)), expected(seconds));
        }
    }
}

TEST(NSDateUtilsTest, readsBackWhatItWrites) {
    std::mt19937_64 random(6);
    for (const char* zone : {"Europe/Berlin", "America/New_York", "Africa/Monrovia", "Asia/Kathmandu", "Pacific/Apia", "UTC"}) {
        setTimeZone(zone);
        for (int i = 0; i < 5000; ++i) {
            const double seconds = std::floor(std::uniform_real_distribution(-6.213e10, 2.534e11)(random));
            ASSERT_EQ(secondsOf(toISO8601(Date(seconds))), seconds) << zone << toISO8601(Date(seconds));
        }
    }
}

TEST(NSDateUtilsTest, countsDaysInTheUsersCalendar) {
    setTimeZone("Europe/Berlin");
    const Date afternoon(march5 + 15 * 3600 + 0.5);
    EXPECT_EQ(dateAtMidnight(afternoon), Date(march5));
    EXPECT_EQ(dateAtMidnight(Date(march5)), Date(march5));
    EXPECT_EQ(dateAtMidnight(Date(march5 - 0.001)), Date(march5 - 86400));
    EXPECT_EQ(dateByAddingDays(afternoon, -1), Date(march5 - 86400));
    EXPECT_EQ(dateByAddingDays(afternoon, 0), Date(march5));
    EXPECT_EQ(dateByAddingDays(afternoon, 27), Date(march5 + 27 * 86400 - 3600));  // a day of 23 hours lies between
    EXPECT_TRUE(sameDayAsDate(afternoon, Date(march5)));
    EXPECT_FALSE(sameDayAsDate(afternoon, Date(march5 + 86400)));
    const Date today = todayAtMidnight();
    EXPECT_EQ(tomorrowAtMidnight(), dateByAddingDays(today, 1));
    EXPECT_TRUE(sameDayAsDate(today, Date::now()));
}

TEST(NSDateUtilsTest, writesAndReadsTheShortPatterns) {
    setTimeZone("Europe/Berlin");
    const Date date(march5 + 15 * 3600 + 7 * 60 + 9.123);
    EXPECT_EQ(toYYYYMMDD(date), "2013/03/05");
    EXPECT_EQ(dateWithYYYYMMDD("2013/03/05"), Date(march5));
    EXPECT_EQ(toYYYYMMDDhhmmss(date), "201303051507091230");
    EXPECT_EQ(dateWithYYYYMMDDhhmmss("201303051507091230"), Date(march5 + 15 * 3600 + 7 * 60 + 9.123));
    EXPECT_EQ(toYYYYMMDDhhmmss(Date(-0.25)), "197001010059597500");
    for (int i = 0; i < 10000; ++i) {
        const std::string text = toYYYYMMDDhhmmss(Date(march5 + i / 10000.0));
        ASSERT_EQ(text.substr(14), NS::format("%04d", i));
        ASSERT_EQ(toYYYYMMDDhhmmss(*dateWithYYYYMMDDhhmmss(text)), text);
    }
    for (const std::string_view bad : {"2013-03-05", "2013/02/29", "2013/3/5", "2013/03/05 ", ""})
        EXPECT_FALSE(dateWithYYYYMMDD(bad)) << bad;
    for (const std::string_view bad : {"20130305150709", "201303051507091", "2013030515070912345", "201303052507091230"}) {
        EXPECT_FALSE(dateWithYYYYMMDDhhmmss(bad)) << bad;
    }
}

TEST(NSDateUtilsTest, describesDatesForPeople) {
    ::setenv("LANG", "en_US.UTF-8", 1);
    setTimeZone("Europe/Berlin");
    NS::Bundle::mainBundle().setLocalizedStrings({{"Today", "Heute"}});
    const Date today = todayAtMidnight();
    const auto at = [](Date midnight, double hours) { return midnight.dateByAddingTimeInterval(hours * 3600); };
    EXPECT_TRUE(niceDescriptionWithTime(at(today, 0)).starts_with("Heute @ 12:00"));
    EXPECT_TRUE(niceDescriptionWithTime(at(dateByAddingDays(today, -1), 0.25)).starts_with("Yesterday @ 12:15"));
    EXPECT_EQ(niceDescription(at(today, 0)), "Heute");
    EXPECT_EQ(niceDescription(Date(march5 + 1)), "Mar 5, 2013");
    EXPECT_EQ(niceDescriptionWithTime(Date(march5 + 15 * 3600 + 420)), "Mar 5, 2013 @ 03:07");
    for (const int days : {-7, -2, 1, 30}) {
        const std::string text = niceDescription(dateByAddingDays(today, days));
        EXPECT_TRUE(text.ends_with("day") && text != "Yesterday") << text;
    }
    EXPECT_FALSE(niceDescription(dateByAddingDays(today, -8)).ends_with("day"));
    EXPECT_EQ(descriptionWithCurrentLocale(Date(march5)),
              "Tuesday, March 5, 2013 at 12:00:00\u202FAM Central European Standard Time");
}

}  // namespace
}  // namespace velkor
