#include "platform/base/Format.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>

#include "platform/base/Array.h"

namespace velkor::NS {
namespace {

constexpr int widest = 1000;

// One conversion of a format: "%-08.3lld" has the flags "-0", the width 8, the precision 3, the length "ll" and the letter d.
struct Conversion {
    std::string flags;
    int width = 0;
    int precision = -1;
    std::string_view length;
    char letter = 0;
};

int takeNumber(std::string_view text, std::size_t& at) {
    int number = 0;
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at)
        number = std::min(widest, number * 10 + (text[at] - '0'));
    return number;
}

// Reads the conversion behind the percent sign; `at` is left behind it. False when it is not one of ours.
bool takeConversion(std::string_view text, std::size_t& at, Conversion& conversion) {
    while (at < text.size() && std::string_view("-+ #0").find(text[at]) != std::string_view::npos) conversion.flags += text[at++];
    conversion.width = takeNumber(text, at);
    if (at < text.size() && text[at] == '.') conversion.precision = takeNumber(text, ++at);
    const std::size_t length = at;
    while (at < text.size() && std::string_view("hlqzjt").find(text[at]) != std::string_view::npos) ++at;
    conversion.length = text.substr(length, at - length);
    if (at == text.size()) return false;
    conversion.letter = text[at++];
    return std::string_view("@sdiuxXfFeEgG").find(conversion.letter) != std::string_view::npos;
}

template <class Number>
std::string printed(const Conversion& conversion, std::string_view letters, Number value) {
    const std::string pattern = "%" + conversion.flags + "*.*" + std::string(letters);
    char text[2 * widest + 512];  // the longest double has 310 digits before its point
    const int length = std::snprintf(text, sizeof text, pattern.c_str(), conversion.width, conversion.precision, value);
    return {text, static_cast<std::size_t>(std::max(length, 0))};
}

std::string padded(const Conversion& conversion, std::string text) {
    if (conversion.precision >= 0 && text.size() > static_cast<std::size_t>(conversion.precision)) {
        text.resize(static_cast<std::size_t>(conversion.precision));
    }
    const auto width = static_cast<std::size_t>(conversion.width);
    if (text.size() >= width) return text;
    const bool left = conversion.flags.find('-') != std::string::npos;
    text.insert(left ? text.size() : 0, width - text.size(), ' ');
    return text;
}

std::string converted(const Conversion& conversion, const FormatArgument& argument) {
    if (argument.kind() == FormatArgument::Kind::text) return padded(conversion, argument.description());
    switch (conversion.letter) {
        case 'd':
        case 'i':
            return printed(conversion, "lld", static_cast<long long>(argument.integer()));
        case 'u':
        case 'x':
        case 'X': {
            auto value = static_cast<unsigned long long>(argument.integer());
            // Without a length a negative number has the 32 bits of an int.
            if (argument.integer() < 0 && conversion.length.empty()) value &= 0xFFFFFFFFull;
            return printed(conversion, std::string("ll") + conversion.letter, value);
        }
        case '@':
        case 's':
            return padded(conversion, argument.description());
        default:
            return printed(conversion, std::string_view(&conversion.letter, 1), argument.real());
    }
}

}  // namespace

std::string describe(double value) {
    if (std::isnan(value)) return "nan";
    if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
    char text[32];
    const auto result = std::to_chars(text, text + sizeof text, value);
    return {text, result.ptr};
}

std::string describe(const std::vector<std::string>& texts) {
    Array array;
    array.reserve(texts.size());
    for (const std::string& text : texts) array.push_back(text);
    return array.description();
}

std::string formatArguments(std::string_view format, std::span<const FormatArgument> arguments) {
    std::string text;
    text.reserve(format.size() + 16 * arguments.size());
    std::size_t next = 0;
    for (std::size_t at = 0; at < format.size();) {
        const std::size_t percent = std::min(format.find('%', at), format.size());
        text += format.substr(at, percent - at);
        if (percent == format.size()) break;
        at = percent + 1;
        if (at < format.size() && format[at] == '%') {
            text += '%';
            ++at;
            continue;
        }
        Conversion conversion;
        if (!takeConversion(format, at, conversion)) {
            text += format.substr(percent, at - percent);  // no conversion of ours: it stands for itself
        } else if (next < arguments.size()) {
            text += converted(conversion, arguments[next++]);
        } else {
            text += "(null)";
        }
    }
    return text;
}

}  // namespace velkor::NS
