#pragma once

#include <optional>

#include "platform/base/Data.h"
#include "platform/base/Error.h"
#include "platform/base/Export.h"
#include "platform/base/Value.h"

namespace velkor {

/// Domain of the writer's errors; their code is -1.
inline constexpr std::string_view CJSONSerializerErrorDomain = "TODO_DOMAIN";

/// Writes values as compact JSON text in UTF-8: an object's own text (JSONRepresentable), dates as strings in local time with a
/// numeric offset, null, booleans, numbers, strings, arrays, dictionaries in their own order, byte buffers as their UTF-8 text,
/// and CSerializedJSONData unchanged. A value of any other kind, nested ones included, makes the whole result none. Stateless.
class VELKOR_EXPORT CJSONDataSerializer {
public:
    static CJSONDataSerializer serializer() { return {}; }

    std::optional<NS::Data> serializeObject(const NS::Value& value, NS::ErrorOut error) const;
    std::optional<NS::Data> serializeDictionary(const NS::Dictionary& dictionary, NS::ErrorOut error) const;
    std::optional<NS::Data> serializeArray(const NS::Array& array, NS::ErrorOut error) const;
};

}  // namespace velkor
