// The one dynamically typed value of the library: what property lists, JSON texts, user infos and store attributes hold.
#pragma once

#include <concepts>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

#include "platform/base/Array.h"
#include "platform/base/Cell.h"
#include "platform/base/Data.h"
#include "platform/base/Date.h"
#include "platform/base/Dictionary.h"
#include "platform/base/Export.h"
#include "platform/base/Null.h"
#include "platform/base/Object.h"
#include "platform/base/SharedText.h"

namespace velkor::NS {

/// A value of one of the kinds below, 16 bytes in all. Copies are cheap: text, bytes and collections share their storage until
/// one side changes it. A Value may be read from several threads at once; changing one needs outside synchronisation. nil means
/// "absent"; the JSON null is the separate kind `null`.
class VELKOR_EXPORT Value {
public:
    enum class Kind : std::uint8_t { nil, null, boolean, integer, real, decimal, string, date, data, array, dictionary, object };

    Value() noexcept = default;
    Value(Null) noexcept : m_cell(cellOf(Kind::null)) {}
    template <std::same_as<bool> B>
    Value(B value) noexcept : m_cell(cellOf(Kind::boolean)) {
        m_cell.setPayload<std::int64_t>(value);
    }
    /// An unsigned number beyond the signed range becomes a decimal.
    template <std::integral I>
    requires(!std::same_as<I, bool> && !std::same_as<I, char>) Value(I value) : m_cell(cellOf(Kind::integer)) {
        m_cell.setPayload(static_cast<std::int64_t>(value));
        if constexpr (std::unsigned_integral<I> && sizeof(I) == sizeof(std::int64_t)) {
            if (value > std::numeric_limits<std::int64_t>::max()) *this = decimal(std::to_string(value));
        }
    }
    Value(double value) noexcept : m_cell(cellOf(Kind::real)) { m_cell.setPayload(value); }
    Value(std::string_view text) : Value(SharedText(text)) {}
    /// A null pointer becomes nil.
    Value(const char* text) : Value(text ? Value(std::string_view(text)) : Value()) {}
    Value(const std::string& text) : Value(std::string_view(text)) {}
    Value(SharedText text) noexcept : m_cell(std::exchange(text.m_cell, Cell(SharedText::stringKind))) {}
    Value(Date value) noexcept : m_cell(cellOf(Kind::date)) { m_cell.setPayload(value.timeIntervalSince1970()); }
    Value(Data value) noexcept : m_cell(cellOf(Kind::data)) { adopt(std::move(value)); }
    Value(Array value) noexcept : m_cell(cellOf(Kind::array)) { adopt(std::move(value)); }
    Value(Dictionary value) noexcept : m_cell(cellOf(Kind::dictionary)) { adopt(std::move(value)); }
    /// A null pointer becomes nil.
    Value(std::shared_ptr<Object> value);
    template <std::derived_from<Object> T>
    Value(std::shared_ptr<T> value) : Value(std::shared_ptr<Object>(std::move(value))) {}
    Value(const Value& other) noexcept : m_cell(other.m_cell) { m_cell.retain(); }
    Value(Value&& other) noexcept : m_cell(std::exchange(other.m_cell, Cell())) {}
    Value& operator=(const Value& other) noexcept { return *this = Value(other); }
    Value& operator=(Value&& other) noexcept {
        Value taken(std::move(other));
        std::swap(m_cell, taken.m_cell);
        return *this;
    }
    ~Value() { release(); }

    /// A number kept as its exact decimal text, such as "12345678901234567890.05"; the caller has checked the text.
    static Value decimal(std::string_view text);

    Kind kind() const noexcept { return static_cast<Kind>(m_cell.kind()); }
    bool isNil() const noexcept { return kind() == Kind::nil; }
    bool isNull() const noexcept { return kind() == Kind::null; }
    bool isNumber() const noexcept { return kind() >= Kind::boolean && kind() <= Kind::decimal; }
    bool isString() const noexcept { return kind() == Kind::string; }
    explicit operator bool() const noexcept { return !isNil(); }

    // Typed reading: none (or a null pointer) for a value of another kind.
    /// true/false for a boolean, and "is not zero" for any other number.
    std::optional<bool> asBoolean() const noexcept;
    /// Any number whose value is a whole number in range.
    std::optional<std::int64_t> asInteger() const noexcept;
    /// Any number, rounded to a double.
    std::optional<double> asDouble() const noexcept;
    /// The text; the view is valid while this Value is neither changed, moved nor destroyed.
    std::optional<std::string_view> asString() const noexcept { return textOfKind(Kind::string); }
    /// The text of a decimal number (kind `decimal` only).
    std::optional<std::string_view> asDecimal() const noexcept { return textOfKind(Kind::decimal); }
    std::optional<Date> asDate() const noexcept {
        return kind() == Kind::date ? std::optional(Date(m_cell.payload<double>())) : std::nullopt;
    }
    const Data* asData() const noexcept { return kind() == Kind::data ? m_cell.payloadObject<Data>() : nullptr; }
    const Array* asArray() const noexcept { return kind() == Kind::array ? m_cell.payloadObject<Array>() : nullptr; }
    const Dictionary* asDictionary() const noexcept {
        return kind() == Kind::dictionary ? m_cell.payloadObject<Dictionary>() : nullptr;
    }
    std::shared_ptr<Object> asObject() const noexcept;
    /// The object as a T, or null.
    template <class T>
    std::shared_ptr<T> as() const noexcept {
        return std::dynamic_pointer_cast<T>(asObject());
    }
    /// The text for keeping beyond this Value, sharing its storage; empty for any other kind.
    SharedText sharedText() const noexcept;

    /// The text, or the fallback for any other kind.
    std::string stringOr(std::string_view fallback) const { return std::string(asString().value_or(fallback)); }

    // Changing in place; a value of another kind becomes an empty collection first.
    Array& mutableArray();
    Dictionary& mutableDictionary();

    /// Same kind and same content; numbers compare by value across the number kinds (not-a-number equals itself, and a decimal is
    /// compared with a real as a double), objects by identity.
    bool operator==(const Value& other) const noexcept;

    /// The text that "%@" gives: "(null)" for nil, the platform's description for the rest.
    std::string description() const;
    /// Name of the value's class for messages, such as "NSString" (its platform name); "nil" for nil.
    std::string_view className() const noexcept;

    /// Asks the processor to have this value's storage at hand soon; for walks over long collections.
    void prefetch() const noexcept {
        if (m_cell.isShared()) __builtin_prefetch(m_cell.storage());
    }

private:
    struct ObjectBox;
    static constexpr Cell cellOf(Kind kind) noexcept { return Cell(static_cast<std::uint8_t>(kind)); }
    template <class Collection>
    void adopt(Collection&& value) noexcept {
        static_assert(sizeof(Collection) == sizeof(void*));
        m_cell.markShared();
        new (m_cell.payloadPlace()) std::remove_cvref_t<Collection>(std::move(value));
    }
    std::optional<std::string_view> textOfKind(Kind wanted) const noexcept {
        return kind() == wanted ? std::optional(m_cell.text()) : std::nullopt;
    }
    void release() noexcept {
        if (!m_cell.isShared()) return;
        if (auto* storage = m_cell.storage(); storage && storage->release()) destroyStorage();
    }
    void destroyStorage() noexcept;

    Cell m_cell;
};
static_assert(sizeof(Value) == 16 && static_cast<int>(Value::Kind::string) == 6);

class VELKOR_EXPORT Dictionary::Entry {
public:
    Entry() noexcept = default;
    Entry(SharedText key, Value value) noexcept : m_key(std::move(key)), m_value(std::move(value)) {}

    std::string_view key() const noexcept { return m_key.view(); }
    const Value& value() const noexcept { return m_value; }

    template <std::size_t I>
    decltype(auto) get() const noexcept {
        if constexpr (I == 0) {
            return key();
        } else {
            return value();
        }
    }

private:
    friend class Dictionary;
    SharedText m_key;
    Value m_value;
};

}  // namespace velkor::NS

template <>
struct std::tuple_size<velkor::NS::Dictionary::Entry> : std::integral_constant<std::size_t, 2> {};
template <>
struct std::tuple_element<0, velkor::NS::Dictionary::Entry> {
    using type = std::string_view;
};
template <>
struct std::tuple_element<1, velkor::NS::Dictionary::Entry> {
    using type = const velkor::NS::Value&;
};
