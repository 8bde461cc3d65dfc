#include "objectstore/PredicateEvaluator.h"

#include <algorithm>

#include "objectstore/ContextState.h"
#include "objectstore/ManagedObjectID.h"
#include "objectstore/ValueOrder.h"
#include "platform/base/Exception.h"
#include "platform/base/Format.h"

namespace velkor::NS {

namespace {

/// The row key that an object or its identifier stands for; any other value as it is.
Value keyOperand(const Value& value) {
    if (const auto object = value.as<ManagedObject>()) return stateOf(*object).key;
    if (const auto identifier = value.as<ManagedObjectID>()) return identifier->key();
    return value;
}

bool isRelationship(const EntityDescription& entity, std::string_view name) noexcept {
    return entity.relationshipNamed(name) != nullptr;
}

bool less(const Value& left, const Value& right) noexcept { return orderOf(left, right) < 0; }

bool compares(const Value& left, Predicate::Comparison comparison, const Value& right) {
    switch (comparison) {
        case Predicate::Comparison::equal:
            return left == right;
        case Predicate::Comparison::notEqual:
            return !(left == right);
        default:
            break;
    }
    if (!areOrdered(left, right)) return false;
    const int order = orderOf(left, right);
    switch (comparison) {
        case Predicate::Comparison::less:
            return order < 0;
        case Predicate::Comparison::lessOrEqual:
            return order <= 0;
        case Predicate::Comparison::greater:
            return order > 0;
        default:
            return order >= 0;
    }
}

}  // namespace

std::optional<std::size_t> placeOfProperty(const EntityDescription& entity, std::string_view name) noexcept {
    if (const auto* attribute = entity.attributeNamed(name)) return attribute->index;
    const auto* relationship = entity.relationshipNamed(name);
    return relationship && !relationship->toMany ? std::optional(placeOf(*relationship)) : std::nullopt;
}

Predicate predicateWithKeys(const Predicate& predicate, const EntityDescription& entity) {
    switch (predicate.kind()) {
        case Predicate::Kind::always:
            return predicate;
        case Predicate::Kind::comparison:
            if (!isRelationship(entity, predicate.name())) return predicate;
            return Predicate::compare(predicate.name(), predicate.comparison(), keyOperand(predicate.value()));
        case Predicate::Kind::in: {
            if (!isRelationship(entity, predicate.name())) return predicate;
            Array keys;
            for (const Value& value : predicate.values()) keys.push_back(keyOperand(value));
            return Predicate::in(predicate.name(), std::move(keys));
        }
        default:
            break;
    }
    std::vector<Predicate> parts;
    for (const Predicate& part : predicate.parts()) parts.push_back(predicateWithKeys(part, entity));
    if (predicate.kind() == Predicate::Kind::negation) return Predicate::negation(std::move(parts.front()));
    return predicate.kind() == Predicate::Kind::conjunction ? Predicate::all(std::move(parts)) : Predicate::any(std::move(parts));
}

PredicateEvaluator::PredicateEvaluator(const Predicate& predicate, const EntityDescription& entity)
    : m_root(nodeOf(predicate, entity)) {}

PredicateEvaluator::Node PredicateEvaluator::nodeOf(const Predicate& predicate, const EntityDescription& entity) {
    Node node{.kind = predicate.kind(), .value = {}, .members = {}, .parts = {}};
    for (const Predicate& part : predicate.parts()) node.parts.push_back(nodeOf(part, entity));
    if (node.kind != Predicate::Kind::comparison && node.kind != Predicate::Kind::in) return node;
    const auto place = placeOfProperty(entity, predicate.name());
    if (!place)
        throw Exception(InvalidArgumentException, format("%@ has no property %@ to compare", entity.name(), predicate.name()));
    node.place = *place;
    node.comparison = predicate.comparison();
    const bool keys = *place >= entity.attributes().size();
    node.value = keys ? keyOperand(predicate.value()) : predicate.value();
    node.members.reserve(predicate.values().size());
    for (const Value& value : predicate.values()) node.members.push_back(keys ? keyOperand(value) : value);
    std::sort(node.members.begin(), node.members.end(), less);
    return node;
}

bool PredicateEvaluator::matches(const ManagedObject& object) const { return holds(m_root, stateOf(object).values()); }

bool PredicateEvaluator::holds(const Node& node, std::span<const Value> values) {
    const auto part = [&](const Node& inner) { return holds(inner, values); };
    switch (node.kind) {
        case Predicate::Kind::always:
            return true;
        case Predicate::Kind::comparison:
            return compares(values[node.place], node.comparison, node.value);
        case Predicate::Kind::in: {
            const auto [first, last] = std::equal_range(node.members.begin(), node.members.end(), values[node.place], less);
            return std::any_of(first, last, [&](const Value& member) { return member == values[node.place]; });
        }
        case Predicate::Kind::conjunction:
            return std::all_of(node.parts.begin(), node.parts.end(), part);
        case Predicate::Kind::disjunction:
            return std::any_of(node.parts.begin(), node.parts.end(), part);
        case Predicate::Kind::negation:
            return !part(node.parts.front());
    }
    return false;
}

bool Predicate::evaluate(const ManagedObject& object) const {
    ContextState* context = ContextState::of(object);
    if (context && stateOf(object).fault) context->fire(const_cast<ManagedObject&>(object));
    return PredicateEvaluator(*this, object.entity()).matches(object);
}

}  // namespace velkor::NS
