#include "Sync/VLKAnswer.h"

#include <algorithm>

#include "PelmoLib/encodings/VLKLog.h"
#include "platform/base/Format.h"

namespace velkor::VLKAnswer {

namespace {

/// In bytes.
constexpr std::size_t longestIdentifier = 1024;
constexpr std::size_t longestLogged = 80;

/// A text that a URL and a property list can carry.
bool isPlainText(const NS::Value& value) {
    const auto text = value.asString();
    const auto isControl = [](unsigned char byte) { return byte < ' ' || byte == 0x7F; };
    return text && text->size() <= longestIdentifier && std::none_of(text->begin(), text->end(), isControl);
}

/// What is in place of a value may be of any size: only a short text or a number is shown.
std::string brief(const NS::Value& value) {
    if (const NS::Array* array = value.asArray()) return NS::format("%lu elements", array->size());
    if (const NS::Dictionary* dictionary = value.asDictionary()) return NS::format("%lu members", dictionary->size());
    if (const auto text = value.asString(); text && text->size() > longestLogged) return NS::format("%lu bytes", text->size());
    return NS::describe(value);
}

void refuse(const NS::Value& value, std::string_view key) {
    if (value.isNil() || value.isNull()) return;
    VLKLog::sharedInstance().logMessageAtLevel(100, "Ignoring \"%@\" in the server's answer, of type %@: %@", key,
                                               value.className(), brief(value));
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

std::optional<NS::Dictionary> dictionary(const NS::Dictionary& answer, std::string_view key) {
    const NS::Value& value = answer[key];
    if (const NS::Dictionary* members = value.asDictionary()) return *members;
    refuse(value, key);
    return std::nullopt;
}

NS::Value identifier(const NS::Dictionary& answer, std::string_view key) {
    const NS::Value& value = answer[key];
    const bool isBoolean = value.kind() == NS::Value::Kind::boolean;
    if (const auto integer = value.asInteger(); integer && !isBoolean) return *integer;
    if (value.kind() == NS::Value::Kind::real || isPlainText(value)) return value;
    refuse(value, key);
    return {};
}

bool isBatched(const NS::Dictionary& answer) {
    const NS::Value& identifier = answer["batched_download_identifier"];
    return identifier && !identifier.isNull();
}

}  // namespace velkor::VLKAnswer
