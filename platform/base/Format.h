// Texts built from the library's format strings: "%@" describes any value, the printf conversions print numbers.
#pragma once

#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "platform/base/Error.h"
#include "platform/base/Exception.h"
#include "platform/base/Export.h"
#include "platform/base/Value.h"

namespace velkor::NS {

/// The text that "%@" gives for a value; nil, none and null pointers give "(null)".
inline std::string describe(std::nullptr_t) { return "(null)"; }
inline std::string describe(std::string_view text) { return std::string(text); }
inline std::string describe(const std::string& text) { return text; }
inline std::string describe(const char* text) { return text ? std::string(text) : "(null)"; }
inline std::string describe(bool value) { return value ? "1" : "0"; }
VELKOR_EXPORT std::string describe(double value);
template <std::integral I>
requires(!std::same_as<I, bool>) std::string describe(I value) { return std::to_string(value); }
template <class E>
requires std::is_enum_v<E> std::string describe(E value) { return describe(static_cast<std::underlying_type_t<E>>(value)); }
/// A collection of texts, as an array prints: "(\n    a,\n    b\n)".
VELKOR_EXPORT std::string describe(const std::vector<std::string>& texts);
/// Anything that describes itself.
template <class T>
requires requires(const T& value) {
    { value.description() } -> std::convertible_to<std::string>;
}
std::string describe(const T& value) { return value.description(); }
template <class T>
std::string describe(const std::optional<T>& value) {
    return value ? describe(*value) : "(null)";
}
template <class T>
std::string describe(const std::shared_ptr<T>& value) {
    return value ? describe(*value) : "(null)";
}
template <class T>
requires requires(const T& value) { describe(value); }
std::string describe(const T* value) { return value ? describe(*value) : "(null)"; }

/// One typed argument of a format. It refers to the caller's value and describes it only when the text is built.
class VELKOR_EXPORT FormatArgument {
public:
    template <class T>
    FormatArgument(const T& value) noexcept
        : m_value(&value), m_describe([](const void* v) { return describe(*static_cast<const T*>(v)); }) {
        if constexpr (std::is_enum_v<T> || std::integral<T>) {
            m_kind = Kind::integer;
            m_integer = static_cast<std::int64_t>(value);
        } else if constexpr (std::floating_point<T>) {
            m_kind = Kind::real;
            m_real = static_cast<double>(value);
        }
    }
    template <std::size_t N>
    FormatArgument(const char (&text)[N]) noexcept
        : m_value(text), m_describe([](const void* v) { return std::string(static_cast<const char*>(v)); }) {}

    std::string description() const { return m_describe(m_value); }
    enum class Kind { text, integer, real };
    Kind kind() const noexcept { return m_kind; }
    std::int64_t integer() const noexcept { return m_kind == Kind::real ? static_cast<std::int64_t>(m_real) : m_integer; }
    double real() const noexcept { return m_kind == Kind::real ? m_real : static_cast<double>(m_integer); }

private:
    const void* m_value;
    std::string (*m_describe)(const void*);
    Kind m_kind = Kind::text;
    std::int64_t m_integer = 0;
    double m_real = 0;
};

/// Fills the format's conversions (%@ %s %d %i %u %ld %lu %lld %llu %x %f with flags, width and precision, and %%) with the
/// arguments, in order. A conversion without an argument gives "(null)"; surplus arguments are ignored.
VELKOR_EXPORT std::string formatArguments(std::string_view format, std::span<const FormatArgument> arguments);
template <class... Args>
std::string format(std::string_view text, const Args&... args) {
    if constexpr (sizeof...(Args) == 0) {
        return formatArguments(text, {});
    } else {
        const FormatArgument arguments[] = {FormatArgument(args)...};
        return formatArguments(text, arguments);
    }
}

}  // namespace velkor::NS
