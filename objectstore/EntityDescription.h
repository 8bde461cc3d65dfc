#pragma once

#include <atomic>
#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "objectstore/AttributeType.h"
#include "platform/base/Export.h"
#include "platform/base/Value.h"

namespace velkor::NS {

class EntityDescription;
class ManagedObjectModel;
class ObjectClass;

/// An attribute of an entity; immutable once its model is built.
struct AttributeDescription {
    std::string name;
    AttributeType type = AttributeType::undefined;
    bool optional = true;
    /// nil: none.
    Value defaultValue;
    /// Place among the entity's attributes.
    std::size_t index = 0;
};

/// A relationship of an entity; immutable once its model is built.
struct RelationshipDescription {
    std::string name;
    std::string destinationName;
    std::string inverseName;  // empty: none
    bool toMany = false;
    bool optional = true;
    DeleteRule deleteRule = DeleteRule::nullify;
    /// Place among the entity's relationships.
    std::size_t index = 0;
    const EntityDescription* entity = nullptr;
    const EntityDescription* destination = nullptr;
    /// The other side, or null.
    const RelationshipDescription* inverse = nullptr;

    bool manyToMany() const noexcept { return toMany && (!inverse || inverse->toMany); }
};

/// An entity of a model: a name, the class of its objects, attributes and relationships in the model's order. Owned by its model.
class VELKOR_EXPORT EntityDescription {
public:
    const std::string& name() const noexcept { return m_name; }
    const std::string& managedObjectClassName() const noexcept { return m_className; }
    /// Place in the model's entity list.
    std::size_t index() const noexcept { return m_index; }
    const ManagedObjectModel& model() const noexcept { return *m_model; }
    std::span<const AttributeDescription> attributes() const noexcept { return m_attributes; }
    std::span<const RelationshipDescription> relationships() const noexcept { return m_relationships; }
    /// Null when there is none of that name.
    const AttributeDescription* attributeNamed(std::string_view name) const noexcept;
    const RelationshipDescription* relationshipNamed(std::string_view name) const noexcept;
    /// The registered class of the entity's objects; null when none of that name is registered.
    const ObjectClass* objectClass() const noexcept;
    std::string description() const { return m_name; }

private:
    friend class ManagedObjectModel;
    friend class ModelBuilder;
    std::string m_name;
    std::string m_className;
    std::size_t m_index = 0;
    const ManagedObjectModel* m_model = nullptr;
    std::vector<AttributeDescription> m_attributes;
    std::vector<RelationshipDescription> m_relationships;
    mutable std::atomic<const ObjectClass*> m_objectClass = nullptr;  // once found, kept
};

}  // namespace velkor::NS
