#include "json/CJSONDataSerializer.h"

#include <algorithm>

#include "json/JSONWriter.h"
#include "platform/base/Format.h"

namespace velkor {

namespace {

constexpr std::string_view failureReasonKey = "NSLocalizedFailureReason";
constexpr std::size_t largestReservation = std::size_t{16} << 20;

/// About the length of the value's text, told from the first elements of its arrays and `levels` levels of it.
std::size_t estimatedLength(const NS::Value& value, int levels) {
    constexpr std::size_t punctuation = 4, number = 12, sample = 16;
    if (const auto text = value.asString()) return text->size() + punctuation;
    std::size_t length = number;
    if (levels == 0) return length;
    if (const auto* array = value.asArray()) {
        const std::size_t count = std::min(array->size(), sample);
        for (std::size_t i = 0; i < count; ++i) length += estimatedLength((*array)[i], levels - 1);
        return count == 0 ? length : length / count * array->size();
    }
    if (const auto* dictionary = value.asDictionary()) {
        for (const auto& [key, member] : *dictionary) length += key.size() + punctuation + estimatedLength(member, levels - 1);
    }
    return length;
}

}  // namespace

std::optional<NS::Data> CJSONDataSerializer::serializeObject(const NS::Value& value, NS::ErrorOut error) const {
    std::string json;
    json.reserve(std::min(estimatedLength(value, 8), largestReservation));
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
