#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "objectstore/EntityDescription.h"
#include "objectstore/Predicate.h"
#include "platform/base/Value.h"

namespace velkor::NS {

class ManagedObject;

/// Where the property of that name stands among an object's values: an attribute or a to-one relationship. None for another name.
std::optional<std::size_t> placeOfProperty(const EntityDescription& entity, std::string_view name) noexcept;
/// The predicate with its object operands replaced by row keys, as the store wants it.
Predicate predicateWithKeys(const Predicate& predicate, const EntityDescription& entity);

/// A predicate made ready for the objects of one entity: names looked up once, members of "in" sorted once. Internal to the
/// object store.
class PredicateEvaluator {
public:
    /// A name that the entity lacks raises the invalid-argument exception.
    PredicateEvaluator(const Predicate& predicate, const EntityDescription& entity);
    /// By the object's current values; the object is no fault.
    bool matches(const ManagedObject& object) const;

private:
    struct Node {
        Predicate::Kind kind;
        Predicate::Comparison comparison = Predicate::Comparison::equal;
        std::size_t place = 0;
        Value value;
        std::vector<Value> members;  // of "in", in order
        std::vector<Node> parts;
    };
    static Node nodeOf(const Predicate& predicate, const EntityDescription& entity);
    static bool holds(const Node& node, std::span<const Value> values);
    Node m_root;
};

}  // namespace velkor::NS
