#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "json/CDataScanner.h"
#include "platform/base/Error.h"
#include "platform/base/Export.h"
#include "platform/base/Value.h"

namespace velkor {

/// Domain of the errors that the scanner finds. Their user info names the place as "location", in bytes of UTF-8.
inline constexpr std::string_view CJSONScannerErrorDomain = "CJSONScannerErrorDomain";

/// Reads JSON values from UTF-8 text, one pass, each operation from the current place on. An operation that fails returns false,
/// and `error()` says why; the scanner is of no further use then.
class VELKOR_EXPORT CJSONScanner : public CDataScanner {
public:
    enum class Fault : std::int8_t {
        none = 0,
        dictionaryStart = -1,
        dictionaryKey = -2,
        dictionaryColon = -3,
        dictionaryValue = -4,
        dictionaryComma = -5,
        dictionaryEnd = -6,
        arrayStart = -7,
        arrayValue = -8,
        arrayDelimiter = -9,
        arrayEnd = -10,
        stringStart = -11,
        stringCharacter = -12,
        stringEscape = -13,
        number = -14,
        stringEnd = -15,
        value = -16,
        nesting = -17,
        trailing = -18,
    };
    /// Collections may stand in each other this deep.
    static constexpr int maximumDepth = 512;

    using CDataScanner::CDataScanner;

    /// Whether an escape that JSON does not know is an error (it is, unless set) or stands for its character.
    bool strictEscapeCodes() const noexcept { return m_strictEscapeCodes; }
    void setStrictEscapeCodes(bool strict) noexcept { m_strictEscapeCodes = strict; }

    /// Any value; leading white space is skipped.
    bool scanJSONObject(NS::Value& value);
    bool scanJSONDictionary(NS::Dictionary& dictionary);
    bool scanJSONArray(NS::Array& array);
    bool scanJSONStringConstant(NS::SharedText& text);
    bool scanJSONNumberConstant(NS::Value& number);
    /// Fails unless nothing but white space is left.
    bool scanEnd();

    Fault fault() const noexcept { return m_fault; }
    /// The error of the operation that failed.
    NS::Error error() const;
    static NS::Error errorFor(Fault fault, std::size_t location);

protected:
    bool fail(Fault fault) noexcept {
        m_fault = fault;
        return false;
    }

private:
    bool scanValue(NS::Value& value, Fault unknown);
    bool scanMember();
    bool scanKey(NS::SharedText& key);
    bool scanLiteral(NS::Value& value, Fault unknown);
    bool scanEscapedString(NS::SharedText& text, const char* begin);
    bool scanEscape(char*& out);
    bool scanHexadecimal(std::uint32_t& unit) noexcept;
    bool scanReal(NS::Value& number, std::string_view text);

    bool m_strictEscapeCodes = true;
    Fault m_fault = Fault::none;
    int m_depth = 0;
    std::vector<NS::Value> m_values;               // elements of the arrays being read, inner ones on top
    std::vector<NS::Dictionary::Entry> m_members;  // members of the dictionaries being read, likewise
    std::array<NS::SharedText, 64> m_knownKeys;    // long keys met last, by their hash
};

}  // namespace velkor
