// The readers of date texts, and that a date that was read is written so that it reads back equal.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "PelmoLib/encodings/NSDate+Utils.h"
#include "platform/base/LocalTime.h"

using namespace velkor;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static constexpr const char* zones[] = {"Europe/Berlin", "America/Sao_Paulo", "Africa/Monrovia", "Pacific/Apia", "UTC"};
    if (size == 0) return 0;
    static unsigned current = ~0U;
    if (const unsigned zone = bytes[0] % std::size(zones); zone != current) {
        ::setenv("TZ", zones[current = zone], 1);
        NS::localTimeZoneChanged();
    }
    const std::string_view text(reinterpret_cast<const char*>(bytes) + 1, size - 1);
    for (const auto& read : {dateWithISO8601Date, dateWithYYYYMMDD, dateWithYYYYMMDDhhmmss}) {
        const auto date = read(text);
        if (!date) continue;
        const std::string wire = toISO8601(*date);
        // Near the years 0001 and 9999 the offset may carry the date beyond what can be written.
        const NS::Date whole(static_cast<double>(static_cast<std::int64_t>(date->timeIntervalSince1970())));
        if (!wire.empty() && date == whole && dateWithISO8601Date(wire) != date) std::abort();
        (void)toYYYYMMDD(*date);
        (void)toYYYYMMDDhhmmss(*date);
    }
    return 0;
}
