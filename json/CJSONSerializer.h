#pragma once

#include <optional>
#include <string>

#include "platform/base/Error.h"
#include "platform/base/Export.h"
#include "platform/base/Value.h"

namespace velkor {

/// The same as CJSONDataSerializer with text results.
class VELKOR_EXPORT CJSONSerializer {
public:
    static CJSONSerializer serializer() { return {}; }

    std::optional<std::string> serializeObject(const NS::Value& value, NS::ErrorOut error) const;
    std::optional<std::string> serializeDictionary(const NS::Dictionary& dictionary, NS::ErrorOut error) const;
    std::optional<std::string> serializeArray(const NS::Array& array, NS::ErrorOut error) const;
};

}  // namespace velkor
