#include "json/CJSONSerializer.h"

#include "json/CJSONDataSerializer.h"

namespace velkor {

std::optional<std::string> CJSONSerializer::serializeObject(const NS::Value& value, NS::ErrorOut error) const {
    auto json = CJSONDataSerializer::serializer().serializeObject(value, error);
    if (!json) return std::nullopt;
    return json->take();
}

std::optional<std::string> CJSONSerializer::serializeDictionary(const NS::Dictionary& dictionary, NS::ErrorOut error) const {
    return serializeObject(dictionary, error);
}

std::optional<std::string> CJSONSerializer::serializeArray(const NS::Array& array, NS::ErrorOut error) const {
    return serializeObject(array, error);
}

}  // namespace velkor
