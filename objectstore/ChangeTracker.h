#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "objectstore/KeySet.h"
#include "objectstore/ObjectState.h"

namespace velkor::NS {

/// A context's unsaved changes: the inserted, updated and deleted objects, held until they are saved or given up, in the order of
/// their changes; and the rows without an object here of which a delete rule has removed a link. An object is in one list at
/// most, as its status says. Internal to the object store.
class ChangeTracker {
public:
    using List = std::vector<std::shared_ptr<ManagedObject>>;  // null: no longer in this list

    explicit ChangeTracker(std::size_t entityCount) : m_counts(entityCount), m_touched(entityCount) {}

    /// Adds the object with the status inserted, updated or deleted; one that is in a list already leaves it.
    void add(std::shared_ptr<ManagedObject> object, ObjectStatus status);
    /// Takes the object out and gives it the status.
    void remove(ManagedObject& object, ObjectStatus status);
    void touch(const EntityDescription& entity, RowKey key) { m_touched[entity.index()].insert(key); }

    /// No object has changed. (A row is touched only where an object was deleted.)
    bool empty() const noexcept { return m_count == 0; }
    bool hasTouched() const noexcept;
    std::size_t countOf(const EntityDescription& entity) const noexcept { return m_counts[entity.index()]; }
    const List& inserted() const noexcept { return m_inserted; }
    const List& updated() const noexcept { return m_updated; }
    const List& deleted() const noexcept { return m_deleted; }
    const KeySet& touched(const EntityDescription& entity) const noexcept { return m_touched[entity.index()]; }

    /// Every changed object.
    template <class F>
    void forEach(F&& handle) const {
        for (const List* list : {&m_inserted, &m_updated, &m_deleted}) {
            for (const auto& object : *list) {
                if (object) handle(*object);
            }
        }
    }
    /// The lists, without gaps; the tracker is empty afterwards. The objects keep their status.
    struct Lists {
        List inserted, updated, deleted;
    };
    Lists take();

private:
    List& listOf(ObjectStatus status) noexcept;

    List m_inserted, m_updated, m_deleted;
    std::size_t m_count = 0;
    std::vector<std::size_t> m_counts;  // of changed objects, by entity
    std::vector<KeySet> m_touched;      // by entity
};

}  // namespace velkor::NS
