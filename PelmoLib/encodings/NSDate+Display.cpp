// Display texts in the user's language and calendar.
#include <unicode/locid.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>

#include <memory>

#include "PelmoLib/encodings/NSDate+Utils.h"
#include "platform/base/Format.h"
#include "platform/persistence/Bundle.h"

namespace velkor {

namespace {

/// The date as the formatter writes it in the user's zone.
std::string formatted(NS::Date date, icu::DateFormat& formatter) {
    formatter.adoptTimeZone(icu::TimeZone::detectHostTimeZone());
    icu::UnicodeString text;
    formatter.format(date.timeIntervalSince1970() * 1000, text);
    std::string utf8;
    return text.toUTF8String(utf8);
}

std::string formatted(NS::Date date, const char16_t* pattern) {
    UErrorCode status = U_ZERO_ERROR;
    icu::SimpleDateFormat formatter(icu::UnicodeString(pattern), icu::Locale::getDefault(), status);
    return U_FAILURE(status) ? toISO8601(date) : formatted(date, formatter);
}

/// "Today", "Yesterday" or the weekday; none for a day that lies more than a week back.
std::optional<std::string> dayWord(NS::Date date) {
    const NS::Date today = todayAtMidnight();
    if (sameDayAsDate(date, today)) return NS::Bundle::mainBundle().localizedString("Today");
    if (sameDayAsDate(date, dateByAddingDays(today, -1))) return NS::Bundle::mainBundle().localizedString("Yesterday");
    if (dateAtMidnight(date) < dateByAddingDays(today, -7)) return std::nullopt;
    return formatted(date, u"EEEE");
}

}  // namespace

std::string niceDescription(NS::Date date) {
    const auto word = dayWord(date);
    return word ? *word : formatted(date, u"MMM d, yyyy");
}

std::string niceDescriptionWithTime(NS::Date date) {
    const auto word = dayWord(date);
    return word ? NS::format("%@ @ %@", *word, formatted(date, u"h:mm a")) : formatted(date, u"MMM d, yyyy @ hh:mm");
}

std::string descriptionWithCurrentLocale(NS::Date date) {
    const std::unique_ptr<icu::DateFormat> formatter(
        icu::DateFormat::createDateTimeInstance(icu::DateFormat::kFull, icu::DateFormat::kFull));
    return formatter ? formatted(date, *formatter) : toISO8601(date);
}

}  // namespace velkor
