#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "objectstore/EntityDescription.h"
#include "objectstore/ManagedObject.h"
#include "objectstore/ObjectClass.h"
#include "platform/base/Dictionary.h"
#include "platform/base/Value.h"

namespace velkor {

/// What decides whether the objects of an entity take part in sync, looked up once for many objects. A value; any thread.
class VLKSyncableKind {
public:
    explicit VLKSyncableKind(const NS::EntityDescription& entity);

    const NS::EntityDescription& entity() const noexcept { return *m_entity; }
    /// The entity's class adopts VLKSyncableObject.
    bool syncable() const noexcept { return m_syncable; }
    /// Whether capture leaves the object out: `expired` decides; a class without it is asked `doNotSynchronize`.
    bool excludesFromCapture(const NS::ManagedObject& object) const;
    /// Whether the hash and the listings leave the object out: opted out or expired.
    bool excludesFromSharing(const NS::ManagedObject& object) const;

    /// The guid is a plain attribute: it can be read from rows, without making objects.
    bool guidIsStored() const noexcept { return m_guidIsStored; }
    /// The guid and the two flags are plain attributes: rows can be judged by their values, without making objects.
    bool judgedByValues() const noexcept { return m_judgedByValues; }
    /// The attributes to read for it; the guid is the first.
    std::vector<std::string> judgedAttributes() const;
    bool excludesFromCapture(std::span<const NS::Value> values) const noexcept;
    bool excludesFromSharing(std::span<const NS::Value> values) const noexcept;
    /// By what the store's history kept of a deleted object.
    bool excludesFromCapture(const NS::Dictionary& kept) const noexcept;

private:
    bool answers(std::string_view member) const noexcept;
    bool isAnsweredByAttribute(std::string_view member) const noexcept;
    // Places in `judgedAttributes`.
    static constexpr std::size_t expiredPlace = 1;
    std::size_t optOutPlace() const noexcept { return m_hasExpired ? 2 : 1; }

    const NS::EntityDescription* m_entity;
    const NS::ObjectClass* m_class;
    bool m_syncable;
    bool m_hasExpired = false;
    bool m_hasOptOut = false;
    bool m_guidIsStored = false;
    bool m_judgedByValues = false;
};

/// The kinds met while handling one thing, each looked up once.
class VLKSyncableKinds {
public:
    const VLKSyncableKind& of(const NS::EntityDescription& entity);

private:
    std::vector<std::unique_ptr<VLKSyncableKind>> m_kinds;  // few: searched in line
};

}  // namespace velkor
