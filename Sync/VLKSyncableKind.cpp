#include "Sync/VLKSyncableKind.h"

#include "PelmoLib/VLKSyncableObject.h"

namespace velkor {

namespace {

bool isTrue(const NS::Value& value) noexcept { return value.asBoolean().value_or(false); }

}  // namespace

VLKSyncableKind::VLKSyncableKind(const NS::EntityDescription& entity)
    : m_entity(&entity), m_class(entity.objectClass()), m_syncable(conformsToSyncableProtocol(m_class)) {
    if (!m_syncable) return;
    m_hasExpired = answers(VLKSyncableMember::expired);
    m_hasOptOut = answers(VLKSyncableMember::doNotSynchronize);
    m_guidIsStored = entity.attributeNamed(VLKSyncableMember::guid) && !m_class->getterFor(VLKSyncableMember::guid);
    m_judgedByValues = m_guidIsStored && (!m_hasExpired || isAnsweredByAttribute(VLKSyncableMember::expired)) &&
                       (!m_hasOptOut || isAnsweredByAttribute(VLKSyncableMember::doNotSynchronize));
}

std::vector<std::string> VLKSyncableKind::judgedAttributes() const {
    std::vector<std::string> names{std::string(VLKSyncableMember::guid)};
    if (m_hasExpired) names.emplace_back(VLKSyncableMember::expired);
    if (m_hasOptOut) names.emplace_back(VLKSyncableMember::doNotSynchronize);
    return names;
}

/// Of two entities that share a class one may lack the attribute.
bool VLKSyncableKind::answers(std::string_view member) const noexcept {
    const NS::ObjectClass::Member* answer = m_class->member(member);
    return answer && (!answer->isAttribute || m_entity->attributeNamed(member));
}

bool VLKSyncableKind::isAnsweredByAttribute(std::string_view member) const noexcept {
    return m_class->member(member)->isAttribute && !m_class->getterFor(member);
}

bool VLKSyncableKind::excludesFromCapture(const NS::ManagedObject& object) const {
    if (m_hasExpired) return isTrue(m_class->valueOfMember(VLKSyncableMember::expired, object));
    return m_hasOptOut && isTrue(m_class->valueOfMember(VLKSyncableMember::doNotSynchronize, object));
}

bool VLKSyncableKind::excludesFromSharing(const NS::ManagedObject& object) const {
    return (m_hasOptOut && isTrue(m_class->valueOfMember(VLKSyncableMember::doNotSynchronize, object))) ||
           (m_hasExpired && isTrue(m_class->valueOfMember(VLKSyncableMember::expired, object)));
}

bool VLKSyncableKind::excludesFromCapture(std::span<const NS::Value> values) const noexcept {
    if (m_hasExpired) return isTrue(values[expiredPlace]);
    return m_hasOptOut && isTrue(values[optOutPlace()]);
}

bool VLKSyncableKind::excludesFromSharing(std::span<const NS::Value> values) const noexcept {
    return (m_hasOptOut && isTrue(values[optOutPlace()])) || (m_hasExpired && isTrue(values[expiredPlace]));
}

bool VLKSyncableKind::excludesFromCapture(const NS::Dictionary& kept) const noexcept {
    if (m_hasExpired) return isTrue(kept[VLKSyncableMember::expired]);
    return m_hasOptOut && isTrue(kept[VLKSyncableMember::doNotSynchronize]);
}

const VLKSyncableKind& VLKSyncableKinds::of(const NS::EntityDescription& entity) {
    for (const auto& kind : m_kinds) {
        if (&kind->entity() == &entity) return *kind;
    }
    return *m_kinds.emplace_back(std::make_unique<VLKSyncableKind>(entity));
}

}  // namespace velkor
