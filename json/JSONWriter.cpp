#include "json/JSONWriter.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>

#include "json/CSerializedJSONData.h"
#include "json/JSONRepresentable.h"
#include "json/TextScan.h"
#include "platform/base/DecimalText.h"
#include "platform/base/Format.h"
#include "platform/base/UTF8.h"
#include "platform/base/WireDate.h"

namespace velkor {

namespace {

constexpr int maximumDepth = 512;
constexpr std::size_t shortText = 60;
constexpr std::string_view invalidText = "A text is no valid UTF-8.";

/// Appends the escape of a control character, a double quote or a backslash.
void appendEscape(std::string& out, char c) {
    switch (c) {
        case '"':
            out.append("\\\"");
            return;
        case '\\':
            out.append("\\\\");
            return;
        case '\b':
            out.append("\\b");
            return;
        case '\f':
            out.append("\\f");
            return;
        case '\n':
            out.append("\\n");
            return;
        case '\r':
            out.append("\\r");
            return;
        case '\t':
            out.append("\\t");
            return;
        default:
            break;
    }
    constexpr char digits[] = "0123456789ABCDEF";
    const char escape[] = {'\\', 'u', '0', '0', digits[c >> 4 & 0xF], digits[c & 0xF]};
    out.append(escape, sizeof escape);
}

/// Whether the text is a number as JSON writes them.
bool isNumberText(std::string_view text) {
    std::size_t at = 0;
    auto digits = [&] {
        const std::size_t from = at;
        while (at < text.size() && text[at] >= '0' && text[at] <= '9') ++at;
        return at - from;
    };
    if (text.starts_with('-')) ++at;
    const bool zero = at < text.size() && text[at] == '0';
    const std::size_t whole = digits();
    if (whole == 0 || (zero && whole > 1)) return false;
    if (at < text.size() && text[at] == '.') {
        ++at;
        if (digits() == 0) return false;
    }
    if (at < text.size() && (text[at] == 'e' || text[at] == 'E')) {
        ++at;
        if (at < text.size() && (text[at] == '+' || text[at] == '-')) ++at;
        if (digits() == 0) return false;
    }
    return at == text.size();
}

/// A decimal that is spelt in another way ("+1", ".5", "007") as JSON writes it; empty when it is no number.
std::string numberText(std::string_view decimal) {
    const auto parts = NS::DecimalParts::parse(decimal);
    if (!parts) return {};
    std::string text = (parts->negative ? "-" : "") + (parts->digits.empty() ? "0" : parts->digits);
    if (parts->exponent != 0) text += "e" + std::to_string(parts->exponent);
    return text;
}

std::string unsupported(const NS::Value& value) { return NS::format("Cannot serialize data of type '%@'", value.className()); }

}  // namespace

void JSONWriter::open(char bracket) {
    const char text[] = {',', bracket};
    m_out.append(text + !m_comma, sizeof text - !m_comma);
    m_comma = false;
}

void JSONWriter::close(char bracket) {
    m_out.push_back(bracket);
    m_comma = true;
}

void JSONWriter::key(std::string_view name) {
    quoted(name, "\":");
    m_comma = false;
}

void JSONWriter::string(std::string_view text) { quoted(text, "\""); }

void JSONWriter::plainString(std::string_view text) {
    separate();
    m_out.push_back('"');
    m_out.append(text);
    m_out.push_back('"');
}

// Comma, quote, text and ending.
void JSONWriter::quoted(std::string_view text, std::string_view ending) {
    const char* p = text.data();
    const char* const end = p + text.size();
    const char* copied = p;
    p = detail::skipPlainText(p, end);
    if (p == end && text.size() <= shortText) {
        // The usual case goes out in one piece.
        char piece[shortText + 4] = {',', '"'};
        if (!text.empty()) std::memcpy(piece + 2, text.data(), text.size());
        std::memcpy(piece + 2 + text.size(), ending.data(), ending.size());
        m_out.append(piece + !m_comma, 2 + text.size() + ending.size() - !m_comma);
        m_comma = true;
        return;
    }
    separate();
    m_out.push_back('"');
    for (; p != end; p = detail::skipPlainText(p, end)) {
        if (static_cast<unsigned char>(*p) >= 0x80) {
            const std::size_t length = NS::utf8CharacterLength(p, end);
            if (length == 0) return fail(std::string(invalidText));
            p += length;
        } else {
            m_out.append(copied, p);
            appendEscape(m_out, *p);
            copied = ++p;
        }
    }
    m_out.append(copied, end);
    m_out.append(ending);
}

void JSONWriter::integer(std::int64_t value) {
    char text[24];
    literal({text, std::to_chars(text, text + sizeof text, value).ptr});
}

void JSONWriter::unsignedInteger(std::uint64_t value) {
    char text[24];
    literal({text, std::to_chars(text, text + sizeof text, value).ptr});
}

void JSONWriter::number(double value) {
    if (!std::isfinite(value)) return fail("A number is not finite.");
    char text[32];
    char* end = std::to_chars(text, text + sizeof text, value).ptr;
    // The plus sign of an exponent is left out: some readers do not know it.
    end = std::remove(text, end, '+');
    literal({text, end});
}

void JSONWriter::date(NS::Date date) {
    separate();
    m_out.push_back('"');
    if (!NS::appendWireDate(m_out, date)) fail("A date lies outside the years 0001 to 9999.");
    m_out.push_back('"');
}

void JSONWriter::value(const NS::Value& value) {
    using Kind = NS::Value::Kind;
    switch (value.kind()) {
        case Kind::null:
            return null();
        case Kind::boolean:
            return boolean(*value.asBoolean());
        case Kind::integer:
            return integer(*value.asInteger());
        case Kind::real:
            return number(*value.asDouble());
        case Kind::decimal: {
            const std::string_view text = *value.asDecimal();
            if (isNumberText(text)) return literal(text);
            const std::string spelt = numberText(text);
            return spelt.empty() ? fail(NS::format("A decimal number reads '%@'.", text)) : literal(spelt);
        }
        case Kind::string:
            return string(*value.asString());
        case Kind::date:
            return date(*value.asDate());
        case Kind::data:
            return string(value.asData()->view());
        case Kind::array:
            return array(*value.asArray());
        case Kind::dictionary:
            return dictionary(*value.asDictionary());
        case Kind::object:
            return object(value);
        case Kind::nil:
            return fail(unsupported(value));
    }
}

bool JSONWriter::hasRuleFor(const NS::Value& value) noexcept {
    if (value.kind() != NS::Value::Kind::object) return !value.isNil();
    const auto object = value.asObject();
    return dynamic_cast<JSONRepresentable*>(object.get()) || dynamic_cast<CSerializedJSONData*>(object.get());
}

void JSONWriter::array(const NS::Array& array) {
    if (!descend()) return;
    beginArray();
    for (const NS::Value& element : array) value(element);
    endArray();
    --m_depth;
}

void JSONWriter::dictionary(const NS::Dictionary& dictionary) {
    if (!descend()) return;
    beginObject();
    for (const auto& entry : dictionary) member(entry.key(), entry.value());
    endObject();
    --m_depth;
}

bool JSONWriter::descend() {
    if (m_depth < maximumDepth && ok()) {
        ++m_depth;
        return true;
    }
    fail(NS::format("Nesting is deeper than %d levels.", maximumDepth));
    return false;
}

void JSONWriter::object(const NS::Value& value) {
    const auto object = value.asObject();
    if (auto* own = dynamic_cast<JSONRepresentable*>(object.get())) {
        const auto json = own->objectAsJson();
        return json ? raw(json->view()) : fail("An object gives no JSON text.");
    }
    if (auto* serialized = dynamic_cast<CSerializedJSONData*>(object.get())) return raw(serialized->data().view());
    fail(unsupported(value));
}

void JSONWriter::fail(std::string reason) {
    if (m_failure.empty()) m_failure = std::move(reason);
}

}  // namespace velkor
