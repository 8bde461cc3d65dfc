#pragma once

#include <compare>
#include <string>

#include "platform/base/Export.h"

namespace velkor::NS {

/// A point in time: seconds since 1970-01-01 00:00:00 UTC, fractions included.
class VELKOR_EXPORT Date {
public:
    constexpr Date() noexcept = default;
    constexpr explicit Date(double secondsSince1970) noexcept : m_seconds(secondsSince1970) {}
    /// The current time.
    static Date now() noexcept;

    constexpr double timeIntervalSince1970() const noexcept { return m_seconds; }
    /// Seconds from `other` to this date; negative when this one is earlier.
    constexpr double timeIntervalSinceDate(Date other) const noexcept { return m_seconds - other.m_seconds; }
    constexpr Date dateByAddingTimeInterval(double seconds) const noexcept { return Date(m_seconds + seconds); }
    constexpr auto operator<=>(const Date&) const noexcept = default;

    std::string description() const;

private:
    double m_seconds = 0;
};

}  // namespace velkor::NS
