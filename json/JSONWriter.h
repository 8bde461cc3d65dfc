#pragma once

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/base/Date.h"
#include "platform/base/Export.h"
#include "platform/base/Value.h"

namespace velkor {

/// Writes compact JSON text, piece by piece, to the end of a string of the caller's, which must outlive the writer. Commas and
/// colons are set by the writer; that begin and end match, and that a key stands before each value of an object, is the caller's
/// duty. What cannot be written (invalid UTF-8, NaN, an unsupported kind) makes `ok()` false for good and `failure()` say why;
/// the text is then unusable. Control characters are written as \u00XX or in their short forms, "/" and everything else as they
/// are.
class VELKOR_EXPORT JSONWriter {
public:
    explicit JSONWriter(std::string& out) noexcept : m_out(out) {}
    JSONWriter(const JSONWriter&) = delete;
    JSONWriter& operator=(const JSONWriter&) = delete;

    void beginObject() { open('{'); }
    void endObject() { close('}'); }
    void beginArray() { open('['); }
    void endArray() { close(']'); }
    void key(std::string_view name);

    void string(std::string_view text);
    void null() { literal("null"); }
    void boolean(bool value) { literal(value ? "true" : "false"); }
    template <std::integral I>
    requires(!std::same_as<I, bool>) void number(I value) {
        if constexpr (std::is_signed_v<I>) {
            integer(static_cast<std::int64_t>(value));
        } else {
            unsignedInteger(static_cast<std::uint64_t>(value));
        }
    }
    /// The shortest text that reads back as the same double; NaN and infinities fail.
    void number(double value);
    /// A string in the pattern of `NS::appendWireDate`; dates outside the years 0001 to 9999 fail.
    void date(NS::Date date);
    /// A string of which the caller knows that nothing in it needs an escape, such as base64 text or a UUID.
    void plainString(std::string_view text);
    /// One value as finished JSON text, copied unchanged.
    void raw(std::string_view json) { literal(json); }
    /// Any value, by the rules of CJSONDataSerializer.
    void value(const NS::Value& value);
    /// Whether there is a rule for values of this kind and class (a member of it may still fail).
    static bool hasRuleFor(const NS::Value& value) noexcept;
    /// `key(name)` and `value(...)`.
    void member(std::string_view name, const NS::Value& member) {
        key(name);
        value(member);
    }

    bool ok() const noexcept { return m_failure.empty(); }
    /// Why writing failed; empty while it has not.
    const std::string& failure() const noexcept { return m_failure; }

private:
    void open(char bracket);
    void close(char bracket);
    void separate() {
        if (m_comma) m_out.push_back(',');
        m_comma = true;
    }
    void literal(std::string_view text) {
        separate();
        m_out.append(text);
    }
    void integer(std::int64_t value);
    void unsignedInteger(std::uint64_t value);
    void quoted(std::string_view text, std::string_view ending);
    void array(const NS::Array& array);
    void dictionary(const NS::Dictionary& dictionary);
    void object(const NS::Value& value);
    bool descend();
    void fail(std::string reason);

    std::string& m_out;
    std::string m_failure;
    bool m_comma = false;  // something stands before the next value in its collection
    int m_depth = 0;       // of the collections that `value` is writing
};

}  // namespace velkor
