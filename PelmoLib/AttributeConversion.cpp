#include "PelmoLib/AttributeConversion.h"

#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include "PelmoLib/encodings/NSDate+Utils.h"
#include "PelmoLib/encodings/VLKLog.h"
#include "platform/base/Format.h"

namespace velkor {

using namespace NS;

namespace {

/// None: the number does not fit.
template <class I>
std::optional<Value> integerValue(const Value& json) {
    if (!json.isNumber()) return std::nullopt;
    const auto number = json.asInteger();
    if (!number || *number < std::numeric_limits<I>::min() || *number > std::numeric_limits<I>::max()) return std::nullopt;
    return Value(*number);
}

std::optional<Value> booleanValue(const Value& json) {
    if (json.kind() == Value::Kind::boolean) return json;
    const auto number = integerValue<std::int64_t>(json);
    if (!number || (number->asInteger() != 0 && number->asInteger() != 1)) return std::nullopt;
    return Value(number->asInteger() == 1);
}

std::optional<Value> realValue(const Value& json, double limit) {
    if (!json.isNumber()) return std::nullopt;
    const auto number = json.asDouble();
    if (!number || !(std::fabs(*number) <= limit)) return std::nullopt;
    return Value(*number);
}

std::optional<Value> decimalValue(const Value& json) {
    if (json.kind() == Value::Kind::decimal) return json;
    if (!json.isNumber()) return std::nullopt;
    if (const auto integer = json.asInteger()) return Value::decimal(std::to_string(*integer));
    const auto real = json.asDouble();
    if (!real || !std::isfinite(*real)) return std::nullopt;
    return Value::decimal(describe(*real));
}

/// The value to store, nil to clear, or none when the JSON value does not fit the type.
std::optional<Value> converted(AttributeType type, const Value& json) {
    switch (type) {
        case AttributeType::integer16:
            return integerValue<std::int16_t>(json);
        case AttributeType::integer32:
            return integerValue<std::int32_t>(json);
        case AttributeType::integer64:
            return integerValue<std::int64_t>(json);
        case AttributeType::boolean:
            return booleanValue(json);
        case AttributeType::doubleType:
            return realValue(json, std::numeric_limits<double>::max());
        case AttributeType::floatType:
            return realValue(json, std::numeric_limits<float>::max());
        case AttributeType::decimal:
            return decimalValue(json);
        case AttributeType::string:
            return json.isString() ? std::optional(json) : std::nullopt;
        case AttributeType::date: {
            const auto text = json.asString();
            if (!text) return std::nullopt;
            const auto date = dateWithISO8601Date(*text);
            return date ? Value(*date) : Value();
        }
        case AttributeType::undefined:
        case AttributeType::transformable:
            return json;
        case AttributeType::binaryData:
        case AttributeType::objectID:
            break;
    }
    return std::nullopt;
}

}  // namespace

Value attributeValueFromJSON(const AttributeDescription& attribute, const Value& json, std::string_view className) {
    Value value;
    if (!json.isNil() && !json.isNull()) {
        if (auto fitting = converted(attribute.type, json)) {
            value = *std::move(fitting);
        } else {
            VLKLog::sharedInstance().logMessageAtLevel(100,
                                                       "Clearing attribute %@ of received %@: it cannot hold a value of type %@.",
                                                       attribute.name, className, json.className());
        }
    }
    return value.isNil() && !attribute.optional ? attribute.defaultValue : value;
}

}  // namespace velkor
