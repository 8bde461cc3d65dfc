#include "objectstore/EntityDescription.h"

#include "objectstore/ObjectClass.h"

namespace velkor::NS {

namespace {

// Entities have few properties: a look along the row is quicker than any index.
template <class T>
const T* named(const std::vector<T>& properties, std::string_view name) noexcept {
    for (const T& property : properties) {
        if (property.name == name) return &property;
    }
    return nullptr;
}

}  // namespace

const AttributeDescription* EntityDescription::attributeNamed(std::string_view name) const noexcept {
    return named(m_attributes, name);
}

const RelationshipDescription* EntityDescription::relationshipNamed(std::string_view name) const noexcept {
    return named(m_relationships, name);
}

const ObjectClass* EntityDescription::objectClass() const noexcept {
    const ObjectClass* known = m_objectClass.load(std::memory_order_acquire);
    if (known) return known;
    known = ObjectClass::forName(m_className);
    if (known) m_objectClass.store(known, std::memory_order_release);
    return known;
}

}  // namespace velkor::NS
