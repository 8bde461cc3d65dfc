#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "objectstore/KeyTable.h"
#include "objectstore/ManagedObject.h"
#include "objectstore/ObjectState.h"

namespace velkor::NS {

/// The object, or null when its last owner is just letting go of it.
std::shared_ptr<ManagedObject> sharedOf(ManagedObject& object) noexcept;

/// A context's objects by entity and key: one object a row. It owns none of them; an object that dies is removed. Also knows
/// which objects are faults, and keeps objects whose rows are gone apart from the living. Internal to the object store.
class ObjectRegistry {
public:
    explicit ObjectRegistry(std::size_t entityCount) : m_entities(entityCount) {}

    /// A registered object, or null.
    ManagedObject* find(const EntityDescription& entity, RowKey key) const noexcept;
    /// An object whose row is gone, as long as somebody holds it.
    ManagedObject* findDeparted(const EntityDescription& entity, RowKey key) const noexcept;
    bool hasDeparted(const EntityDescription& entity) const noexcept { return !m_entities[entity.index()].departed.empty(); }
    void add(ManagedObject& object);
    /// The object's row is gone: from now on it is only found among the departed.
    void depart(ManagedObject& object);
    /// Forgets the object.
    void remove(ManagedObject& object) noexcept;

    /// A key for an object without a row; never used twice in a process. The object is registered under it.
    RowKey addTemporary(ManagedObject& object);
    bool hasTemporaries() const noexcept { return !m_temporaries.empty(); }
    /// The row key that stands for a temporary one from now on; the object itself is registered anew by `add`.
    void setPermanentKey(RowKey temporary, RowKey permanent) noexcept;
    /// The key itself, or the row key that was set for a temporary one.
    RowKey permanentKey(RowKey key) const noexcept;
    /// No row keys have been set: the save that did has failed.
    void forgetPermanentKeys() noexcept;
    /// No temporary keys are in use any more.
    void clearTemporaries() noexcept;

    void addFault(ManagedObject& object);
    void removeFault(ManagedObject& object) noexcept;
    /// The fault and up to `limit` - 1 others of its entity.
    std::vector<ManagedObject*> faultsWith(ManagedObject& fault, std::size_t limit) const;

    /// Some registered objects of the key's entity: those that happen to be near it.
    template <class F>
    void forEachNear(const EntityDescription& entity, RowKey key, std::size_t span, F&& handle) const {
        m_entities[entity.index()].living.forEachBehind(key, span, [&](RowKey, ManagedObject* object) { handle(*object); });
    }
    /// Every object, the departed included.
    template <class F>
    void forEach(F&& handle) const {
        for (const Entity& entity : m_entities) {
            entity.living.forEach([&](RowKey, ManagedObject* object) { handle(*object); });
            entity.departed.forEach([&](RowKey, ManagedObject* object) { handle(*object); });
        }
        for (const Temporary& temporary : m_temporaries) {
            if (temporary.object) handle(*temporary.object);
        }
    }
    void clear() noexcept;

private:
    struct Entity {
        KeyTable<ManagedObject*> living;
        KeyTable<ManagedObject*> departed;
        std::vector<ManagedObject*> faults;
    };
    struct Temporary {
        ManagedObject* object = nullptr;
        RowKey permanentKey = 0;
    };
    const Entity& entityOf(const ManagedObject& object) const noexcept { return m_entities[object.entity().index()]; }
    Entity& entityOf(const ManagedObject& object) noexcept { return m_entities[object.entity().index()]; }
    const Temporary* temporary(RowKey key) const noexcept;
    Temporary* temporary(RowKey key) noexcept { return const_cast<Temporary*>(std::as_const(*this).temporary(key)); }

    std::vector<Entity> m_entities;
    std::vector<Temporary> m_temporaries;  // the one of key m_firstTemporary first, then downwards
    RowKey m_firstTemporary = 0;           // 0: there has not been any yet
};

}  // namespace velkor::NS
