#include "objectstore/Predicate.h"

#include "platform/base/Array.h"

namespace velkor::NS {

struct Predicate::Content {
    Kind kind = Kind::always;
    Comparison comparison = Comparison::equal;
    std::string name;
    Value value;
    Array values;
    std::vector<Predicate> parts;
};

namespace {

std::string_view sign(Predicate::Comparison comparison) {
    switch (comparison) {
        case Predicate::Comparison::equal:
            return " == ";
        case Predicate::Comparison::notEqual:
            return " != ";
        case Predicate::Comparison::less:
            return " < ";
        case Predicate::Comparison::lessOrEqual:
            return " <= ";
        case Predicate::Comparison::greater:
            return " > ";
        case Predicate::Comparison::greaterOrEqual:
            return " >= ";
    }
    return " ? ";
}

std::string operand(const Value& value) {
    if (value.isNil()) return "nil";
    return value.isString() ? '"' + value.description() + '"' : value.description();
}

std::string joined(const std::vector<Predicate>& parts, std::string_view word) {
    std::string text = "(";
    for (const Predicate& part : parts) {
        if (text.size() > 1) text += word;
        text += part.description();
    }
    return text + ")";
}

}  // namespace

Predicate Predicate::always() {
    static const auto content = std::make_shared<const Content>();
    return Predicate(content);
}

Predicate Predicate::compare(std::string_view name, Comparison comparison, Value value) {
    return Predicate(
        std::make_shared<const Content>(Content{Kind::comparison, comparison, std::string(name), std::move(value), {}, {}}));
}

Predicate Predicate::in(std::string_view name, Array values) {
    return Predicate(
        std::make_shared<const Content>(Content{Kind::in, Comparison::equal, std::string(name), {}, std::move(values), {}}));
}

Predicate Predicate::all(std::vector<Predicate> parts) {
    return Predicate(
        std::make_shared<const Content>(Content{Kind::conjunction, Comparison::equal, {}, {}, {}, std::move(parts)}));
}

Predicate Predicate::any(std::vector<Predicate> parts) {
    return Predicate(
        std::make_shared<const Content>(Content{Kind::disjunction, Comparison::equal, {}, {}, {}, std::move(parts)}));
}

Predicate Predicate::negation(Predicate part) {
    std::vector<Predicate> parts;
    parts.push_back(std::move(part));
    return Predicate(std::make_shared<const Content>(Content{Kind::negation, Comparison::equal, {}, {}, {}, std::move(parts)}));
}

Predicate::Kind Predicate::kind() const noexcept { return m_content->kind; }
const std::string& Predicate::name() const noexcept { return m_content->name; }
Predicate::Comparison Predicate::comparison() const noexcept { return m_content->comparison; }
const Value& Predicate::value() const noexcept { return m_content->value; }
const Array& Predicate::values() const noexcept { return m_content->values; }
const std::vector<Predicate>& Predicate::parts() const noexcept { return m_content->parts; }

std::string Predicate::description() const {
    switch (kind()) {
        case Kind::always:
            return "TRUEPREDICATE";
        case Kind::comparison:
            return name() + std::string(sign(comparison())) + operand(value());
        case Kind::in: {
            std::string text;
            for (const Value& value : values()) text += (text.empty() ? "" : ", ") + operand(value);
            return name() + " IN {" + text + "}";
        }
        case Kind::conjunction:
            return parts().empty() ? "TRUEPREDICATE" : joined(parts(), " AND ");
        case Kind::disjunction:
            return parts().empty() ? "FALSEPREDICATE" : joined(parts(), " OR ");
        case Kind::negation:
            return "NOT " + joined(parts(), "");
    }
    return {};
}

}  // namespace velkor::NS
