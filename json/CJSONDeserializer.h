#pragma once

#include <optional>
#include <string_view>

#include "platform/base/Data.h"
#include "platform/base/Error.h"
#include "platform/base/Export.h"
#include "platform/base/Value.h"

namespace velkor {

/// Domain of the reader's error for empty input (code -1). What the scanner finds has the domain CJSONScannerErrorDomain.
inline constexpr std::string_view CJSONDeserializerErrorDomain = "CJSONDeserializerErrorDomain";

/// Reads JSON text in UTF-8, UTF-16 or UTF-32 into values that own all they hold. One pass; at most 512 levels deep; of equal
/// keys in an object the last one wins. A number that neither 64 bits nor a double holds exactly becomes a decimal, its text
/// unchanged. The bytes are only read during the call. Stateless.
class VELKOR_EXPORT CJSONDeserializer {
public:
    static CJSONDeserializer deserializer() { return {}; }

    /// Any JSON text; a nil value and an error when it is none. (A JSON null is the value NS::Null, not nil.)
    NS::Value deserialize(std::string_view json, NS::ErrorOut error) const;
    NS::Value deserialize(const NS::Data& json, NS::ErrorOut error) const { return deserialize(json.view(), error); }
    /// The top-level value must be an object, respectively an array.
    std::optional<NS::Dictionary> deserializeAsDictionary(std::string_view json, NS::ErrorOut error) const;
    std::optional<NS::Dictionary> deserializeAsDictionary(const NS::Data& json, NS::ErrorOut error) const {
        return deserializeAsDictionary(json.view(), error);
    }
    std::optional<NS::Array> deserializeAsArray(std::string_view json, NS::ErrorOut error) const;
    std::optional<NS::Array> deserializeAsArray(const NS::Data& json, NS::ErrorOut error) const {
        return deserializeAsArray(json.view(), error);
    }
};

/// `deserializeAsDictionary` of a fresh reader.
VELKOR_EXPORT std::optional<NS::Dictionary> dictionaryWithJSONData(const NS::Data& json, NS::ErrorOut error);
VELKOR_EXPORT std::optional<NS::Dictionary> dictionaryWithJSONData(std::string_view json, NS::ErrorOut error);

}  // namespace velkor
