#include "platform/base/Date.h"

#include <chrono>
#include <cmath>
#include <ctime>

namespace velkor::NS {

Date Date::now() noexcept {
    return Date(std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count());
}

std::string Date::description() const {
    const double whole = std::floor(m_seconds);
    // Years beyond what a tm holds, and dates that are no number, print as the bare seconds.
    if (!(std::abs(whole) < 6e16)) return std::to_string(m_seconds);
    const auto seconds = static_cast<std::time_t>(whole);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char text[64];
    return {text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S +0000", &parts)};
}

}  // namespace velkor::NS
