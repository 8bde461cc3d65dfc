#include "Sync/VLKAnswer.h"

#include "PelmoLib/encodings/VLKLog.h"

namespace velkor::VLKAnswer {

namespace {

void refuse(const NS::Value& value, std::string_view key) {
    if (value.isNil() || value.isNull()) return;
    VLKLog::sharedInstance().logMessageAtLevel(100, "Ignoring \"%@\" in the server's answer: it is of type %@.", key,
                                               value.className());
}

}  // namespace

std::optional<double> number(const NS::Dictionary& answer, std::string_view key) {
    const NS::Value& value = answer[key];
    if (value.isNumber()) return value.asDouble();
    refuse(value, key);
    return std::nullopt;
}

std::optional<std::string> text(const NS::Dictionary& answer, std::string_view key) {
    const NS::Value& value = answer[key];
    if (const auto string = value.asString()) return std::string(*string);
    refuse(value, key);
    return std::nullopt;
}

NS::Array array(const NS::Dictionary& answer, std::string_view key) {
    const NS::Value& value = answer[key];
    if (const NS::Array* elements = value.asArray()) return *elements;
    refuse(value, key);
    return {};
}

NS::Value identifier(const NS::Dictionary& answer, std::string_view key) {
    const NS::Value& value = answer[key];
    if (value.isNumber() || value.isString()) return value;
    refuse(value, key);
    return {};
}

}  // namespace velkor::VLKAnswer
