#include "objectstore/StoredForm.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

#include "objectstore/EntityDescription.h"
#include "objectstore/ManagedObjectID.h"
#include "platform/base/DecimalText.h"
#include "platform/base/Exception.h"
#include "platform/base/UTF8.h"
#include "platform/persistence/KeyedArchiver.h"

namespace velkor::NS {

namespace {

template <class I>
constexpr std::int64_t leastOf = std::numeric_limits<I>::min();
template <class I>
constexpr std::int64_t mostOf = std::numeric_limits<I>::max();

}  // namespace

bool isStorableText(std::string_view text) noexcept {
    return isValidUTF8(text) && (text.empty() || !std::memchr(text.data(), 0, text.size()));
}

std::string_view StoredForm::take(AttributeType type, const Value& value) {
    kind = Kind::null;
    ownsBytes = false;
    if (value.isNil()) return {};
    switch (type) {
        case AttributeType::integer16:
            return takeInteger(value, leastOf<std::int16_t>, mostOf<std::int16_t>, "is not a whole number of 16 bits");
        case AttributeType::integer32:
            return takeInteger(value, leastOf<std::int32_t>, mostOf<std::int32_t>, "is not a whole number of 32 bits");
        case AttributeType::integer64:
            return takeInteger(value, leastOf<std::int64_t>, mostOf<std::int64_t>, "is not a whole number of 64 bits");
        case AttributeType::boolean:
            return takeInteger(value, 0, 1, "is not a boolean");
        case AttributeType::decimal:
            return takeDecimal(value);
        case AttributeType::doubleType:
            return takeReal(value, std::numeric_limits<double>::max());
        case AttributeType::floatType:
            return takeReal(value, static_cast<double>(std::numeric_limits<float>::max()));
        case AttributeType::string:
            return takeText(value);
        case AttributeType::date:
            return takeDate(value);
        case AttributeType::binaryData:
            if (const Data* data = value.asData()) {
                kind = Kind::bytes;
                bytes = data->view();
                return {};
            }
            return "is not binary data";
        case AttributeType::objectID:
            return takeObjectID(value);
        case AttributeType::undefined:
        case AttributeType::transformable:
            return takeArchive(value);
    }
    return "has an unknown type";
}

std::string_view StoredForm::takeInteger(const Value& value, std::int64_t least, std::int64_t most, std::string_view problem) {
    const auto number = value.asInteger();
    if (!number || *number < least || *number > most) return problem;
    kind = Kind::integer;
    integer = *number;
    return {};
}

std::string_view StoredForm::takeReal(const Value& value, double most) {
    const auto number = value.asDouble();
    if (!number) return "is not a number";
    if (!std::isfinite(*number)) return "is not a finite number";
    if (std::fabs(*number) > most) return "is too large a number";
    kind = Kind::real;
    real = *number;
    return {};
}

std::string_view StoredForm::own(std::string text) {
    m_buffer = std::move(text);
    bytes = m_buffer;
    ownsBytes = true;
    return {};
}

std::string_view StoredForm::takeDecimal(const Value& value) {
    if (!value.isNumber()) return "is not a number";
    if (const auto text = value.asDecimal()) {
        if (!DecimalParts::parse(*text)) return "is not a decimal number";
        kind = Kind::text;
        bytes = *text;
        return {};
    }
    std::array<char, 32> digits;
    char* end = digits.data();
    if (value.kind() == Value::Kind::real) {
        const double number = *value.asDouble();
        if (!std::isfinite(number)) return "is not a finite number";
        end = std::to_chars(digits.begin(), digits.end(), number).ptr;
    } else {
        end = std::to_chars(digits.begin(), digits.end(), value.asInteger().value_or(0)).ptr;
    }
    kind = Kind::text;
    return own(std::string(digits.data(), end));
}

std::string_view StoredForm::takeText(const Value& value) {
    const auto text = value.asString();
    if (!text) return "is not a text";
    if (!isStorableText(*text)) return "is not valid UTF-8 without NUL bytes";
    kind = Kind::text;
    bytes = *text;
    return {};
}

std::string_view StoredForm::takeDate(const Value& value) {
    const auto date = value.asDate();
    if (!date) return "is not a date";
    if (!std::isfinite(date->timeIntervalSince1970())) return "is not a finite point in time";
    kind = Kind::real;
    real = date->timeIntervalSince1970();
    return {};
}

std::string_view StoredForm::takeArchive(const Value& value) {
    try {
        kind = Kind::bytes;
        return own(archivedDataWithRootObject(value).take());
    } catch (const Exception&) {
        return "cannot be archived";
    }
}

std::string_view StoredForm::takeObjectID(const Value& value) {
    const auto identifier = value.as<ManagedObjectID>();
    if (!identifier) return "is not an object identifier";
    if (identifier->isTemporaryID()) return "is a temporary object identifier";
    kind = Kind::text;
    return own(identifier->URIRepresentation());
}

}  // namespace velkor::NS
