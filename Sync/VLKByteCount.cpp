#include "Sync/VLKByteCount.h"

#include <array>
#include <cmath>
#include <cstddef>

#include "platform/base/Format.h"

namespace velkor {

namespace {

struct Unit {
    const char* name;
    int decimals;
};
constexpr std::array<Unit, 6> units{{{"KB", 0}, {"MB", 1}, {"GB", 2}, {"TB", 2}, {"PB", 2}, {"EB", 2}}};

}  // namespace

std::string textForByteCount(std::int64_t bytes) {
    if (bytes == 0) return "Zero KB";
    if (std::abs(static_cast<double>(bytes)) < 1024) return NS::format(bytes == 1 ? "%ld byte" : "%ld bytes", bytes);
    double amount = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    // Rounding may reach the next unit: 1023.9 KB are 1 MB.
    const auto rounded = [&] {
        return std::round(amount * std::pow(10, units[unit].decimals)) / std::pow(10, units[unit].decimals);
    };
    while (unit + 1 < units.size() && std::abs(rounded()) >= 1024) {
        amount /= 1024;
        ++unit;
    }
    std::string text = NS::format("%.2f", rounded());
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.') text.pop_back();
    return text + " " + units[unit].name;
}

}  // namespace velkor
