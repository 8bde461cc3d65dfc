#include "platform/base/Value.h"

#include <charconv>
#include <cmath>

#include "platform/base/DecimalText.h"
#include "platform/base/Format.h"
#include "platform/base/PlainLocale.h"

namespace velkor::NS {
namespace {

std::optional<std::int64_t> wholeNumber(double value) noexcept {
    if (!(value >= -9223372036854775808.0 && value < 9223372036854775808.0) || value != std::trunc(value)) return std::nullopt;
    return static_cast<std::int64_t>(value);
}

double doubleOf(std::string_view decimal) noexcept {
    if (decimal.starts_with('+')) decimal.remove_prefix(1);
    double value = 0;
    const auto result = std::from_chars(decimal.data(), decimal.data() + decimal.size(), value);
    if (result.ec != std::errc::result_out_of_range) return value;
    const PlainLocale locale;
    return std::strtod(std::string(decimal).c_str(), nullptr);  // tells infinity from zero
}

bool equalDoubles(double a, double b) noexcept { return a == b || (std::isnan(a) && std::isnan(b)); }

bool equalNumbers(const Value& a, const Value& b) {
    if (a.kind() == Value::Kind::real && b.kind() == Value::Kind::real) return equalDoubles(*a.asDouble(), *b.asDouble());
    const auto whole = a.asInteger();
    if (const auto other = b.asInteger(); whole || other) return whole == other;
    // Neither fits an integer: a decimal against a decimal is exact, against a real it counts as a double.
    if (a.asDecimal() && b.asDecimal()) return DecimalParts::parse(*a.asDecimal()) == DecimalParts::parse(*b.asDecimal());
    return equalDoubles(*a.asDouble(), *b.asDouble());
}

}  // namespace

struct Value::ObjectBox : SharedStorage {
    explicit ObjectBox(std::shared_ptr<Object> content) noexcept : object(std::move(content)) {}
    std::shared_ptr<Object> object;
};

Value::Value(std::shared_ptr<Object> value) {
    if (!value) return;
    SharedStorage* box = new ObjectBox(std::move(value));
    m_cell = cellOf(Kind::object);
    m_cell.markShared();
    m_cell.setPayload(box);
}

Value Value::decimal(std::string_view text) {
    Value value(text);
    value.m_cell.setKind(static_cast<std::uint8_t>(Kind::decimal));
    return value;
}

void Value::destroyStorage() noexcept {
    switch (kind()) {
        case Kind::data:
            Data::destroy(m_cell.payload<Data::Storage*>());
            break;
        case Kind::array:
            Array::destroy(m_cell.payload<Array::Storage*>());
            break;
        case Kind::dictionary:
            Dictionary::destroy(m_cell.payload<Dictionary::Storage*>());
            break;
        case Kind::object:
            delete static_cast<ObjectBox*>(m_cell.storage());
            break;
        default:
            std::free(m_cell.storage());
    }
}

std::optional<bool> Value::asBoolean() const noexcept {
    if (!isNumber()) return std::nullopt;
    if (kind() == Kind::boolean || kind() == Kind::integer) return m_cell.payload<std::int64_t>() != 0;
    return asDouble() != 0.0;
}

std::optional<std::int64_t> Value::asInteger() const noexcept {
    switch (kind()) {
        case Kind::boolean:
        case Kind::integer:
            return m_cell.payload<std::int64_t>();
        case Kind::real:
            return wholeNumber(m_cell.payload<double>());
        case Kind::decimal: {
            const auto parts = DecimalParts::parse(m_cell.text());
            return parts ? parts->asInteger() : std::nullopt;
        }
        default:
            return std::nullopt;
    }
}

std::optional<double> Value::asDouble() const noexcept {
    switch (kind()) {
        case Kind::boolean:
        case Kind::integer:
            return static_cast<double>(m_cell.payload<std::int64_t>());
        case Kind::real:
            return m_cell.payload<double>();
        case Kind::decimal:
            return doubleOf(m_cell.text());
        default:
            return std::nullopt;
    }
}

std::shared_ptr<Object> Value::asObject() const noexcept {
    return kind() == Kind::object ? static_cast<ObjectBox*>(m_cell.storage())->object : nullptr;
}

SharedText Value::sharedText() const noexcept {
    SharedText text;
    if (isString()) {
        m_cell.retain();
        text.m_cell = m_cell;
    }
    return text;
}

Array& Value::mutableArray() {
    if (kind() != Kind::array) *this = Array();
    return *m_cell.payloadObject<Array>();
}

Dictionary& Value::mutableDictionary() {
    if (kind() != Kind::dictionary) *this = Dictionary();
    return *m_cell.payloadObject<Dictionary>();
}

bool Value::operator==(const Value& other) const noexcept {
    if (isNumber() && other.isNumber()) return equalNumbers(*this, other);
    if (kind() != other.kind()) return false;
    switch (kind()) {
        case Kind::string:
            return m_cell.sameText(other.m_cell);
        case Kind::date:
            return asDate() == other.asDate();
        case Kind::data:
            return *asData() == *other.asData();
        case Kind::array:
            return *asArray() == *other.asArray();
        case Kind::dictionary:
            return *asDictionary() == *other.asDictionary();
        case Kind::object:
            return asObject() == other.asObject();
        default:
            return true;  // nil and null
    }
}

std::string Value::description() const {
    switch (kind()) {
        case Kind::nil:
            return "(null)";
        case Kind::null:
            return "<null>";
        case Kind::boolean:
        case Kind::integer:
            return std::to_string(m_cell.payload<std::int64_t>());
        case Kind::real:
            return describe(m_cell.payload<double>());
        case Kind::decimal:
        case Kind::string:
            return std::string(m_cell.text());
        case Kind::date:
            return asDate()->description();
        case Kind::data:
            return asData()->description();
        case Kind::array:
            return asArray()->description();
        case Kind::dictionary:
            return asDictionary()->description();
        case Kind::object:
            return asObject()->description();
    }
    return {};
}

std::string_view Value::className() const noexcept {
    switch (kind()) {
        case Kind::nil:
            return "nil";
        case Kind::null:
            return "NSNull";
        case Kind::boolean:
        case Kind::integer:
        case Kind::real:
            return "NSNumber";
        case Kind::decimal:
            return "NSDecimalNumber";
        case Kind::string:
            return "NSString";
        case Kind::date:
            return "NSDate";
        case Kind::data:
            return "NSData";
        case Kind::array:
            return "NSArray";
        case Kind::dictionary:
            return "NSDictionary";
        case Kind::object:
            return static_cast<ObjectBox*>(m_cell.storage())->object->className();
    }
    return {};
}

}  // namespace velkor::NS
