#include "json/CJSONDeserializer.h"

#include "json/CJSONScanner.h"
#include "json/WideText.h"

namespace velkor {

namespace {

constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";

/// Calls `read(scanner)` for the text in UTF-8, which must be one value, and reports what went wrong.
template <class Read>
bool readWhole(std::string_view json, NS::ErrorOut error, Read read) {
    if (json.empty()) {
        NS::setError(error,
                     NS::Error::withDescription(CJSONDeserializerErrorDomain, -1, "There is no JSON text: the input is empty."));
        return false;
    }
    std::string converted;
    if (const auto encoding = detail::encodingOf(json); encoding != detail::Encoding::utf8) {
        if (!detail::convertToUTF8(json, encoding, converted)) {
            NS::setError(error, CJSONScanner::errorFor(CJSONScanner::Fault::stringCharacter, converted.size()));
            return false;
        }
        json = converted;
    }
    if (json.starts_with(byteOrderMark)) json.remove_prefix(byteOrderMark.size());
    CJSONScanner scanner(json);
    if (read(scanner) && scanner.scanEnd()) return true;
    if (error) *error = scanner.error();
    return false;
}

}  // namespace

NS::Value CJSONDeserializer::deserialize(std::string_view json, NS::ErrorOut error) const {
    NS::Value value;
    if (!readWhole(json, error, [&](CJSONScanner& scanner) { return scanner.scanJSONObject(value); })) return {};
    return value;
}

std::optional<NS::Dictionary> CJSONDeserializer::deserializeAsDictionary(std::string_view json, NS::ErrorOut error) const {
    NS::Dictionary dictionary;
    if (!readWhole(json, error, [&](CJSONScanner& scanner) { return scanner.scanJSONDictionary(dictionary); }))
        return std::nullopt;
    return dictionary;
}

std::optional<NS::Array> CJSONDeserializer::deserializeAsArray(std::string_view json, NS::ErrorOut error) const {
    NS::Array array;
    if (!readWhole(json, error, [&](CJSONScanner& scanner) { return scanner.scanJSONArray(array); })) return std::nullopt;
    return array;
}

std::optional<NS::Dictionary> dictionaryWithJSONData(std::string_view json, NS::ErrorOut error) {
    return CJSONDeserializer::deserializer().deserializeAsDictionary(json, error);
}

std::optional<NS::Dictionary> dictionaryWithJSONData(const NS::Data& json, NS::ErrorOut error) {
    return dictionaryWithJSONData(json.view(), error);
}

}  // namespace velkor
