#pragma once

#include <cstdint>
#include <string>

#include "platform/base/Export.h"
#include "platform/base/Object.h"

namespace velkor::NS {

class EntityDescription;

/// Identity of one object of a store: its entity and its row. Temporary until the object is saved or a permanent one is asked
/// for. Immutable; any thread. Valid as long as the model of its entity lives.
class VELKOR_EXPORT ManagedObjectID : public Object {
public:
    ManagedObjectID(const EntityDescription& entity, std::int64_t key) noexcept : m_entity(&entity), m_key(key) {}
    const EntityDescription& entity() const noexcept { return *m_entity; }
    /// The row's key; negative for a temporary identifier.
    std::int64_t key() const noexcept { return m_key; }
    bool isTemporaryID() const noexcept { return m_key < 0; }
    /// "x-velkor:///Entity/p12", or "/t12" for a temporary one.
    std::string URIRepresentation() const;
    std::string description() const override { return URIRepresentation(); }
    bool operator==(const ManagedObjectID& other) const noexcept { return m_entity == other.m_entity && m_key == other.m_key; }

private:
    const EntityDescription* m_entity;
    std::int64_t m_key;
};

}  // namespace velkor::NS
