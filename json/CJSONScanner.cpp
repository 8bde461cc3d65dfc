#include "json/CJSONScanner.h"

#include <charconv>
#include <limits>
#include <system_error>

#include "json/TextScan.h"
#include "platform/base/DecimalText.h"
#include "platform/base/Format.h"
#include "platform/base/UTF8.h"

namespace velkor {

namespace {

std::string_view messageOf(CJSONScanner::Fault fault) {
    using Fault = CJSONScanner::Fault;
    switch (fault) {
        case Fault::none:
            break;
        case Fault::dictionaryStart:
            return "Could not scan dictionary. Dictionary that does not start with '{' character.";
        case Fault::dictionaryKey:
            return "Could not scan dictionary. Failed to scan a key.";
        case Fault::dictionaryColon:
            return "Could not scan dictionary. Key was not terminated with a ':' character.";
        case Fault::dictionaryValue:
            return "Could not scan dictionary. Failed to scan a value.";
        case Fault::dictionaryComma:
            return "Could not scan dictionary. Key value pairs not delimited with a ',' character.";
        case Fault::dictionaryEnd:
            return "Could not scan dictionary. Dictionary not terminated by a '}' character.";
        case Fault::arrayStart:
            return "Could not scan array. Array not started by a '{' character.";
        case Fault::arrayValue:
            return "Could not scan array. Could not scan a value.";
        case Fault::arrayDelimiter:
        case Fault::arrayEnd:
            return "Could not scan array. Array not terminated by a ']' character.";
        case Fault::stringStart:
            return "Could not scan string constant. String not started by a '\"' character.";
        case Fault::stringCharacter:
            return "Could not scan string constant. Unicode character could not be decoded.";
        case Fault::stringEscape:
            return "Could not scan string constant. Unknown escape code.";
        case Fault::stringEnd:
            return "Could not scan string constant. No terminating double quote character.";
        case Fault::number:
            return "Could not scan number constant.";
        case Fault::value:
            return "Could not scan value. The text is no JSON value.";
        case Fault::nesting:
            return "Could not scan value. Collections are nested too deep.";
        case Fault::trailing:
            return "Could not scan value. Other text follows the value.";
    }
    return {};
}

bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }

bool isNumberCharacter(char c) noexcept { return isDigit(c) || c == 'e' || c == 'E' || c == '-' || c == '+' || c == '.'; }

/// Bounds a collection's nesting while it is being read.
class Descent {
public:
    explicit Descent(int& depth) noexcept : m_depth(++depth) {}
    ~Descent() { --m_depth; }
    Descent(const Descent&) = delete;
    Descent& operator=(const Descent&) = delete;
    bool tooDeep() const noexcept { return m_depth > CJSONScanner::maximumDepth; }

private:
    int& m_depth;
};

/// Whether the double's own text says what the number text says. Up to fifteen digits always do.
bool isHeldBy(double value, std::string_view text) {
    constexpr std::size_t alwaysHeld = std::numeric_limits<double>::digits10;
    if (text.size() <= alwaysHeld || value == 0) return true;
    return NS::DecimalParts::parse(text) == NS::DecimalParts::parse(NS::describe(value));
}

/// The power of ten of the first digit that is not zero, of a number text without faults; none when all are zero.
std::optional<std::int64_t> magnitudeOf(std::string_view text) noexcept {
    std::int64_t place = 0, exponent = 0;
    bool point = false, found = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == 'e' || text[i] == 'E') {
            const std::size_t digits = text[i + 1] == '+' ? i + 2 : i + 1;
            const auto read = std::from_chars(text.data() + digits, text.data() + text.size(), exponent);
            if (read.ec != std::errc()) exponent = text[digits] == '-' ? INT32_MIN : INT32_MAX;
            break;
        }
        if (text[i] == '.') {
            point = true;
        } else if (isDigit(text[i])) {
            found = found || text[i] != '0';
            if (point ? !found : found) place += point ? -1 : 1;
        }
    }
    if (!found) return std::nullopt;
    return place + exponent;
}

}  // namespace

NS::Error CJSONScanner::error() const { return errorFor(m_fault, scanLocation()); }

NS::Error CJSONScanner::errorFor(Fault fault, std::size_t location) {
    return {CJSONScannerErrorDomain,
            static_cast<std::int64_t>(fault),
            {{NS::LocalizedDescriptionKey, messageOf(fault)}, {"location", location}}};
}

bool CJSONScanner::scanJSONObject(NS::Value& value) { return scanValue(value, Fault::value); }

bool CJSONScanner::scanEnd() {
    skipWhitespace();
    return isAtEnd() || fail(Fault::trailing);
}

// `unknown` is the fault when no value begins here.
bool CJSONScanner::scanValue(NS::Value& value, Fault unknown) {
    skipWhitespace();
    switch (currentCharacter()) {
        case '"': {
            NS::SharedText text;
            if (!scanJSONStringConstant(text)) return false;
            value = std::move(text);
            return true;
        }
        case '{': {
            NS::Dictionary dictionary;
            if (!scanJSONDictionary(dictionary)) return false;
            value = std::move(dictionary);
            return true;
        }
        case '[': {
            NS::Array array;
            if (!scanJSONArray(array)) return false;
            value = std::move(array);
            return true;
        }
        case '-':
        case '0':
        case '1':
        case '2':
        case '3':
        case '4':
        case '5':
        case '6':
        case '7':
        case '8':
        case '9':
            return scanJSONNumberConstant(value);
        default:
            return scanLiteral(value, unknown);
    }
}

bool CJSONScanner::scanLiteral(NS::Value& value, Fault unknown) {
    if (scanUTF8String("true")) {
        value = true;
    } else if (scanUTF8String("false")) {
        value = false;
    } else if (scanUTF8String("null")) {
        value = NS::Null();
    } else {
        return fail(unknown);
    }
    return true;
}

bool CJSONScanner::scanJSONDictionary(NS::Dictionary& dictionary) {
    const Descent descent(m_depth);
    skipWhitespace();
    if (!scanCharacter('{')) return fail(Fault::dictionaryStart);
    if (descent.tooDeep()) return fail(Fault::nesting);
    skipWhitespace();
    if (scanCharacter('}')) return true;
    const std::size_t first = m_members.size();
    do {
        if (!scanMember()) return false;
        skipWhitespace();
    } while (scanCharacter(','));
    if (!scanCharacter('}')) return fail(isAtEnd() ? Fault::dictionaryEnd : Fault::dictionaryComma);
    dictionary = NS::Dictionary::adopting(std::span(m_members).subspan(first));
    m_members.resize(first);
    return true;
}

bool CJSONScanner::scanMember() {
    NS::SharedText key;
    NS::Value value;
    if (!scanKey(key)) return false;
    skipWhitespace();
    if (!scanCharacter(':')) return fail(Fault::dictionaryColon);
    if (!scanValue(value, Fault::dictionaryValue)) return false;
    m_members.emplace_back(std::move(key), std::move(value));
    return true;
}

// Long keys that were met before share the characters of the first.
bool CJSONScanner::scanKey(NS::SharedText& key) {
    skipWhitespace();
    if (currentCharacter() != '"') return fail(Fault::dictionaryKey);
    const char* const begin = m_at + 1;
    const char* const end = detail::skipPlainText(begin, m_end);
    if (end == m_end || *end != '"') return scanJSONStringConstant(key);
    const std::string_view text(begin, end);
    m_at = end + 1;
    if (text.size() <= NS::SharedText::inlineCapacity) {
        key = NS::SharedText(text);
        return true;
    }
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    NS::SharedText& known =
        m_knownKeys[(text.size() + byte(text.size() - 1) * 5U + byte(text.size() / 2) * 17U) % m_knownKeys.size()];
    if (known.view() != text) known = NS::SharedText(text);
    key = known;
    return true;
}

bool CJSONScanner::scanJSONArray(NS::Array& array) {
    const Descent descent(m_depth);
    skipWhitespace();
    if (!scanCharacter('[')) return fail(Fault::arrayStart);
    if (descent.tooDeep()) return fail(Fault::nesting);
    skipWhitespace();
    if (scanCharacter(']')) return true;
    const std::size_t first = m_values.size();
    do {
        NS::Value value;
        if (!scanValue(value, Fault::arrayValue)) return false;
        m_values.push_back(std::move(value));
        skipWhitespace();
    } while (scanCharacter(','));
    if (!scanCharacter(']')) return fail(isAtEnd() ? Fault::arrayEnd : Fault::arrayDelimiter);
    array = NS::Array::adopting(std::span(m_values).subspan(first));
    m_values.resize(first);
    return true;
}

bool CJSONScanner::scanJSONStringConstant(NS::SharedText& text) {
    skipWhitespace();
    if (!scanCharacter('"')) return fail(Fault::stringStart);
    const char* const begin = m_at;
    while ((m_at = detail::skipPlainText(m_at, m_end)) != m_end) {
        if (*m_at == '"') {
            text = NS::SharedText(std::string_view(begin, m_at));
            ++m_at;
            return true;
        }
        if (*m_at == '\\') return scanEscapedString(text, begin);
        const std::size_t length = NS::utf8CharacterLength(m_at, m_end);
        if (length == 0) return fail(Fault::stringCharacter);
        m_at += length;
    }
    return fail(Fault::stringEnd);
}

// The current place is the first escape of the string that starts at `begin`; up to there it is checked.
bool CJSONScanner::scanEscapedString(NS::SharedText& text, const char* begin) {
    // The closing quote is looked for first, so that the room is right; no escape is shorter than what it stands for.
    const char* close = m_at;
    while (close != m_end && *close != '"') close += *close == '\\' && close + 1 != m_end ? 2 : 1;
    if (close == m_end) {
        m_at = m_end;
        return fail(Fault::stringEnd);
    }
    NS::TextBuffer buffer(static_cast<std::size_t>(close - begin));
    char* out = buffer.data();
    auto copyFrom = [&](const char* from) {
        std::memcpy(out, from, static_cast<std::size_t>(m_at - from));
        out += m_at - from;
    };
    copyFrom(begin);
    while (m_at != close) {
        if (*m_at == '\\') {
            if (!scanEscape(out)) return false;
            continue;
        }
        const char* const from = m_at;
        m_at = detail::skipPlainText(m_at, close);
        if (m_at == from) {
            const std::size_t length = NS::utf8CharacterLength(m_at, close);
            if (length == 0) return fail(Fault::stringCharacter);
            m_at += length;
        }
        copyFrom(from);
    }
    ++m_at;
    text = std::move(buffer).finish(static_cast<std::size_t>(out - buffer.data()));
    return true;
}

// The current place is a backslash that another byte follows.
bool CJSONScanner::scanEscape(char*& out) {
    const char code = m_at[1];
    m_at += 2;
    switch (code) {
        case '"':
        case '\\':
        case '/':
            *out++ = code;
            return true;
        case 'b':
            *out++ = '\b';
            return true;
        case 'f':
            *out++ = '\f';
            return true;
        case 'n':
            *out++ = '\n';
            return true;
        case 'r':
            *out++ = '\r';
            return true;
        case 't':
            *out++ = '\t';
            return true;
        case 'u':
            break;
        default:
            if (m_strictEscapeCodes || static_cast<unsigned char>(code) >= 0x80) return fail(Fault::stringEscape);
            *out++ = code;
            return true;
    }
    std::uint32_t unit = 0, low = 0;
    if (!scanHexadecimal(unit)) return fail(Fault::stringCharacter);
    if (unit >= 0xD800 && unit < 0xE000) {
        const bool pair = unit < 0xDC00 && scanUTF8String("\\u") && scanHexadecimal(low) && low >= 0xDC00 && low < 0xE000;
        if (!pair) return fail(Fault::stringCharacter);
        unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
    }
    out = NS::writeUTF8(out, unit);
    return true;
}

bool CJSONScanner::scanHexadecimal(std::uint32_t& unit) noexcept {
    if (m_end - m_at < 4) return false;
    const auto read = std::from_chars(m_at, m_at + 4, unit, 16);
    if (read.ptr != m_at + 4) return false;
    m_at += 4;
    return true;
}

bool CJSONScanner::scanJSONNumberConstant(NS::Value& number) {
    skipWhitespace();
    const char* const begin = m_at;
    const bool negative = scanCharacter('-');
    const char* const digits = m_at;
    std::uint64_t magnitude = 0;
    while (m_at != m_end && isDigit(*m_at)) magnitude = magnitude * 10 + static_cast<std::uint64_t>(*m_at++ - '0');
    const auto count = m_at - digits;
    const bool whole = m_at == m_end || !isNumberCharacter(*m_at);
    if (count == 0 || (count > 1 && *digits == '0')) return fail(Fault::number);
    if (whole && count <= 18 && !(negative && magnitude == 0)) {
        number = negative ? -static_cast<std::int64_t>(magnitude) : static_cast<std::int64_t>(magnitude);
        return true;
    }
    while (m_at != m_end && isNumberCharacter(*m_at)) ++m_at;
    const std::string_view text(begin, m_at);
    if (whole && count <= 20) {
        std::int64_t exact = 0;
        std::uint64_t large = 0;
        if (negative ? magnitude != 0 && std::from_chars(begin, m_at, exact).ec == std::errc()
                     : std::from_chars(begin, m_at, large).ec == std::errc()) {
            number = negative ? NS::Value(exact) : NS::Value(large);
            return true;
        }
    }
    return scanReal(number, text);
}

bool CJSONScanner::scanReal(NS::Value& number, std::string_view text) {
    double value = 0;
    const char* const end = text.data() + text.size();
    // What from_chars takes but JSON does not: a point without digits on both sides.
    const std::size_t point = text.find('.');
    if (point != text.npos && !(isDigit(text[point - 1]) && point + 1 < text.size() && isDigit(text[point + 1])))
        return fail(Fault::number);
    const auto read = std::from_chars(text.data(), end, value);
    if (read.ptr != end) return fail(Fault::number);
    if (read.ec == std::errc::result_out_of_range) {
        if (magnitudeOf(text).value_or(-1) > 0) return fail(Fault::number);  // beyond a double
        value = text.starts_with('-') ? -0.0 : 0.0;
    } else if (!isHeldBy(value, text)) {
        number = NS::Value::decimal(text);
        return true;
    }
    number = value;
    return true;
}

}  // namespace velkor
