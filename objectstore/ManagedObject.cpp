#include "objectstore/ManagedObject.h"

#include "objectstore/ContextState.h"
#include "objectstore/ManagedObjectID.h"
#include "objectstore/ObjectClass.h"
#include "platform/base/Exception.h"
#include "platform/base/Format.h"

namespace velkor::NS {

namespace {

[[noreturn]] void refuseName(const EntityDescription& entity, std::string_view name) {
    throw Exception(InvalidArgumentException, format("the entity %@ has no property named \"%@\"", entity.name(), name));
}

const AttributeDescription& attributeOf(const EntityDescription& entity, std::string_view name) {
    const AttributeDescription* attribute = entity.attributeNamed(name);
    if (!attribute) refuseName(entity, name);
    return *attribute;
}

/// The objects that a value names as members of a to-many relationship.
ObjectSet setOf(const Value& value, std::string_view name) {
    if (value.isNil() || value.isNull()) return {};
    if (const auto set = value.as<ObjectSet>()) return *set;
    throw Exception(InvalidArgumentException, format("the to-many relationship \"%@\" takes a set of objects", name));
}

std::shared_ptr<ManagedObject> objectOf(const Value& value, std::string_view name) {
    if (value.isNil() || value.isNull()) return nullptr;
    if (auto object = value.as<ManagedObject>()) return object;
    throw Exception(InvalidArgumentException, format("the to-one relationship \"%@\" takes an object", name));
}

}  // namespace

ObjectState& stateOf(const ManagedObject& object) noexcept { return *object.m_state; }

ManagedObject::ManagedObject() = default;

ManagedObject::~ManagedObject() {
    if (m_context) m_context->registry.remove(*this);
}

ObjectState& ManagedObject::loaded() const {
    assertThat(m_state != nullptr, "a store object is made by its context");
    if (m_context) {
        m_context->assertConfinement();
        if (m_state->fault) m_context->fire(const_cast<ManagedObject&>(*this));
    }
    return *m_state;
}

ManagedObjectContext* ManagedObject::managedObjectContext() const noexcept {
    return m_context && m_state->status != ObjectStatus::departed ? &m_context->context : nullptr;
}

std::shared_ptr<const ManagedObjectID> ManagedObject::objectID() const {
    return std::make_shared<const ManagedObjectID>(*m_entity, m_state->key);
}

std::string_view ManagedObject::className() const noexcept {
    return m_entity ? std::string_view(m_entity->managedObjectClassName()) : "NSManagedObject";
}

Value ManagedObject::valueForKey(std::string_view name) const {
    if (const AttributeDescription* attribute = m_entity->attributeNamed(name)) {
        const ObjectClass* objectClass = m_entity->objectClass();
        const auto* getter = objectClass ? objectClass->getterFor(name) : nullptr;
        return getter ? (*getter)(*this) : primitiveValue(*attribute);
    }
    const RelationshipDescription* relationship = m_entity->relationshipNamed(name);
    if (!relationship) refuseName(*m_entity, name);
    if (relationship->toMany) return std::make_shared<ObjectSet>(destinations(*relationship));
    auto object = destination(*relationship);
    return object ? Value(std::move(object)) : Value();
}

void ManagedObject::setValueForKey(const Value& value, std::string_view name) {
    if (const AttributeDescription* attribute = m_entity->attributeNamed(name)) {
        const ObjectClass* objectClass = m_entity->objectClass();
        const auto* setter = objectClass ? objectClass->setterFor(name) : nullptr;
        setter ? (*setter)(*this, value) : setPrimitiveValue(*attribute, value);
        return;
    }
    const RelationshipDescription* relationship = m_entity->relationshipNamed(name);
    if (!relationship) refuseName(*m_entity, name);
    if (relationship->toMany) {
        setDestinations(*relationship, setOf(value, name));
    } else {
        setDestination(*relationship, objectOf(value, name));
    }
}

const Value& ManagedObject::primitiveValue(const AttributeDescription& attribute) const {
    return loaded().values()[attribute.index];
}

void ManagedObject::setPrimitiveValue(const AttributeDescription& attribute, Value value) {
    Value& held = loaded().values()[attribute.index];
    if (m_context) {
        m_context->setValue(*this, attribute.index, std::move(value));
    } else {
        held = std::move(value);
    }
}

const Value& ManagedObject::primitiveValue(std::string_view attribute) const {
    return primitiveValue(attributeOf(*m_entity, attribute));
}

void ManagedObject::setPrimitiveValue(std::string_view attribute, Value value) {
    setPrimitiveValue(attributeOf(*m_entity, attribute), std::move(value));
}

std::shared_ptr<ManagedObject> ManagedObject::destination(const RelationshipDescription& toOne) const {
    assertThat(!toOne.toMany && toOne.entity == m_entity, "the relationship is a to-one one of the object's entity");
    const RowKey key = loaded().keyAt(placeOf(toOne));
    return m_context && key != 0 ? m_context->destination(*this, toOne, key) : nullptr;
}

ObjectSet ManagedObject::destinations(const RelationshipDescription& toMany) const {
    loaded();
    if (!m_context) return {};
    const KeySet& keys = m_context->loadedLinksOf(const_cast<ManagedObject&>(*this), toMany).current();
    std::vector<std::shared_ptr<ManagedObject>> objects;
    objects.reserve(keys.size());
    for (RowKey key : keys) {
        if (auto object = m_context->destination(*this, toMany, key)) objects.push_back(std::move(object));
    }
    return ObjectSet::ofDistinct(std::move(objects));
}

void ManagedObject::setDestination(const RelationshipDescription& toOne, const std::shared_ptr<ManagedObject>& object) {
    loaded();
    if (m_context) m_context->setDestination(*this, toOne, object.get());
}

void ManagedObject::setDestinations(const RelationshipDescription& toMany, const ObjectSet& objects) {
    loaded();
    if (m_context) m_context->setDestinations(*this, toMany, objects);
}

void ManagedObject::addDestination(const RelationshipDescription& toMany, const std::shared_ptr<ManagedObject>& object) {
    loaded();
    if (m_context && object) m_context->changeLink(*this, toMany, *object, true);
}

void ManagedObject::removeDestination(const RelationshipDescription& toMany, const std::shared_ptr<ManagedObject>& object) {
    loaded();
    if (m_context && object) m_context->changeLink(*this, toMany, *object, false);
}

bool ManagedObject::isInserted() const noexcept { return m_state && m_state->status == ObjectStatus::inserted; }

bool ManagedObject::isUpdated() const noexcept {
    return m_state && m_state->status == ObjectStatus::updated && m_state->assigned;
}

bool ManagedObject::isDeleted() const noexcept {
    return m_state && (m_state->status == ObjectStatus::deleted || m_state->status == ObjectStatus::departed);
}

bool ManagedObject::isFault() const noexcept { return m_state && m_state->fault; }

bool ManagedObject::respondsTo(std::string_view member) const noexcept {
    const ObjectClass* objectClass = m_entity->objectClass();
    return objectClass && objectClass->respondsTo(member);
}

std::string ManagedObject::description() const {
    if (!m_entity) return "<NSManagedObject>";
    std::string text = "<" + std::string(className()) + " " + objectID()->URIRepresentation();
    if (m_state->fault) return text + " (fault)>";
    for (const AttributeDescription& attribute : m_entity->attributes()) {
        text += (attribute.index == 0 ? " {" : ", ") + attribute.name + ": " + m_state->values()[attribute.index].description();
    }
    return text + (m_entity->attributes().empty() ? ">" : "}>");
}

}  // namespace velkor::NS
