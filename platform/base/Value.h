// The one dynamically typed value of the library: what property lists, JSON texts, user infos and store attributes hold.
#pragma once

#include <cstdint>
#include <concepts>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/base/Export.h"
#include "platform/base/Array.h"
#include "platform/base/Data.h"
#include "platform/base/Date.h"
#include "platform/base/Dictionary.h"
#include "platform/base/Null.h"
#include "platform/base/Object.h"

namespace velkor::NS {

/// A value of one of the kinds below. Copies are cheap: text, bytes and collections share their storage until one side
/// changes it. A Value may be read from several threads at once; changing one needs outside synchronisation.
/// nil means "absent"; the JSON null is the separate kind `null`.
class VELKOR_EXPORT Value {
public:
    enum class Kind : std::uint8_t { nil, null, boolean, integer, real, decimal, string, date, data, array, dictionary, object };

    Value() noexcept = default;
    Value(Null) noexcept;
    template <std::same_as<bool> B>
    Value(B value) noexcept : Value(makeBoolean(value)) {}
    template <std::integral I>
        requires(!std::same_as<I, bool> && !std::same_as<I, char>)
    Value(I value) noexcept : Value(makeInteger(static_cast<std::int64_t>(value))) {}
    Value(double value) noexcept;
    Value(std::string_view text);
    Value(const char* text) : Value(std::string_view(text)) {}
    Value(const std::string& text) : Value(std::string_view(text)) {}
    Value(Date value) noexcept;
    Value(Data value) noexcept;
    Value(Array value) noexcept;
    Value(Dictionary value) noexcept;
    Value(std::shared_ptr<Object> value) noexcept;
    template <std::derived_from<Object> T>
    Value(std::shared_ptr<T> value) noexcept : Value(std::shared_ptr<Object>(std::move(value))) {}
    Value(const Value& other) noexcept;
    Value(Value&& other) noexcept;
    Value& operator=(const Value& other) noexcept;
    Value& operator=(Value&& other) noexcept;
    ~Value();

    /// A number kept as its exact decimal text, such as "12345678901234567890.05"; the caller has checked the text.
    static Value decimal(std::string_view text);

    Kind kind() const noexcept { return m_kind; }
    bool isNil() const noexcept { return m_kind == Kind::nil; }
    bool isNull() const noexcept { return m_kind == Kind::null; }
    bool isNumber() const noexcept { return m_kind >= Kind::boolean && m_kind <= Kind::decimal; }
    bool isString() const noexcept { return m_kind == Kind::string; }
    explicit operator bool() const noexcept { return !isNil(); }

    // Typed reading: none (or a null pointer) for a value of another kind.
    /// true/false for a boolean, and "is not zero" for any other number.
    std::optional<bool> asBoolean() const noexcept;
    /// Any number whose value is a whole number in range.
    std::optional<std::int64_t> asInteger() const noexcept;
    /// Any number, rounded to a double.
    std::optional<double> asDouble() const noexcept;
    /// The text; the view is valid while this Value is neither changed, moved nor destroyed.
    std::optional<std::string_view> asString() const noexcept;
    /// The text of a decimal number (kind `decimal` only).
    std::optional<std::string_view> asDecimal() const noexcept;
    std::optional<Date> asDate() const noexcept;
    const Data* asData() const noexcept;
    const Array* asArray() const noexcept;
    const Dictionary* asDictionary() const noexcept;
    std::shared_ptr<Object> asObject() const noexcept;
    /// The object as a T, or null.
    template <class T>
    std::shared_ptr<T> as() const noexcept { return std::dynamic_pointer_cast<T>(asObject()); }

    /// The text, or the fallback for any other kind.
    std::string stringOr(std::string_view fallback) const;

    // Changing in place; a value of another kind becomes an empty collection first.
    Array& mutableArray();
    Dictionary& mutableDictionary();

    /// Same kind and same content; numbers compare by value across the number kinds, objects by identity.
    bool operator==(const Value& other) const noexcept;

    /// The text that "%@" gives: "(null)" for nil, the platform's description for the rest.
    std::string description() const;
    /// Name of the value's class for messages, such as "NSString" (its platform name).
    std::string_view className() const noexcept;

private:
    static Value makeBoolean(bool value) noexcept;
    static Value makeInteger(std::int64_t value) noexcept;

    // 16 bytes in all: the kind, the length of an inline text, and 14 bytes of payload (see Value.cpp).
    Kind m_kind = Kind::nil;
};

}  // namespace velkor::NS
