#include "json/CJSONDataSerializer.h"

#include "json/JSONWriter.h"
#include "platform/base/Format.h"

namespace velkor {

namespace {
constexpr std::string_view failureReasonKey = "NSLocalizedFailureReason";
}

std::optional<NS::Data> CJSONDataSerializer::serializeObject(const NS::Value& value, NS::ErrorOut error) const {
    std::string json;
    JSONWriter writer(json);
    writer.value(value);
    if (writer.ok()) return NS::Data(std::move(json));
    if (error) {
        const bool known = JSONWriter::hasRuleFor(value);
        NS::Dictionary userInfo;
        userInfo.set(NS::LocalizedDescriptionKey,
                     known ? NS::format("Could not serialize object '%@'", value) : writer.failure());
        userInfo.set(failureReasonKey, writer.failure());
        *error = NS::Error(CJSONSerializerErrorDomain, -1, std::move(userInfo));
    }
    return std::nullopt;
}

std::optional<NS::Data> CJSONDataSerializer::serializeDictionary(const NS::Dictionary& dictionary, NS::ErrorOut error) const {
    return serializeObject(dictionary, error);
}

std::optional<NS::Data> CJSONDataSerializer::serializeArray(const NS::Array& array, NS::ErrorOut error) const {
    return serializeObject(array, error);
}

}  // namespace velkor
