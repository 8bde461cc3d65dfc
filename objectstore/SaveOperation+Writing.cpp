// A save's rows, links, history and record.
#include <algorithm>

#include "objectstore/SaveOperation.h"

namespace velkor::NS {

Result<void> SaveOperation::write(StoreSession& session) {
    m_stale.clear();
    m_resolutions.clear();
    m_revived.clear();
    m_gone.clear();
    m_rewritten.clear();
    m_context.registry.forgetPermanentKeys();
    if (auto removed = removeRows(session); !removed || !m_stale.empty()) return removed;
    if (auto inserted = insertRows(session); !inserted) return inserted;
    if (auto updated = updateRows(session); !updated) return updated;
    if (auto touched = touchRows(session); !touched) return touched;
    for (const ObjectRef& object : m_context.changes.inserted()) {
        if (!object) continue;
        if (auto linked = writeLinks(session, *object); !linked) return linked;
    }
    for (const Update& update : m_updates) {
        if (!update.written || isGone(*update.object)) continue;
        if (auto linked = writeLinks(session, *update.object); !linked) return linked;
    }
    return record(session);
}

Result<void> SaveOperation::removeRows(StoreSession& session) {
    for (const ObjectRef& object : m_context.changes.deleted()) {
        if (!object) continue;
        const ObjectState& state = stateOf(*object);
        auto outcome = session.remove(object->entity(), state.key, state.version);
        if (!outcome) return outcome.error();
        if (outcome.value() == WriteOutcome::changedSince) {
            if (m_context.policy == MergePolicy::error) return conflict(*object);
            m_stale.push_back(object.get());
        }
        session.touched(object->entity(), ChangeKind::deleted, {});
    }
    return {};
}

/// Most rows can be written in the order of their insertion, with keys that the store chooses. Those that lead to rows without a
/// key come afterwards; as they may lead to one another, they get their keys first.
Result<void> SaveOperation::insertRows(StoreSession& session) {
    std::vector<ManagedObject*> waiting;
    for (const ObjectRef& object : m_context.changes.inserted()) {
        if (!object) continue;
        const RowKey key = stateOf(*object).key;
        if (waitsForKeys(*object)) {
            waiting.push_back(object.get());
        } else if (auto inserted = insertRow(session, *object, key > 0 ? key : 0); !inserted) {
            return inserted;
        }
    }
    if (waiting.empty()) return {};
    if (auto reserved = reserveKeys(session, waiting); !reserved) return reserved;
    for (ManagedObject* object : waiting) {
        auto inserted = insertRow(session, *object, m_context.registry.permanentKey(stateOf(*object).key));
        if (!inserted) return inserted;
    }
    return {};
}

Result<void> SaveOperation::insertRow(StoreSession& session, ManagedObject& object, RowKey key) {
    auto written = session.insert(object.entity(), key, rowValues(object));
    if (!written) return written.error();
    m_context.registry.setPermanentKey(stateOf(object).key, written.value());
    session.touched(object.entity(), ChangeKind::inserted, {});
    return {};
}

Result<void> SaveOperation::reserveKeys(StoreSession& session, std::span<ManagedObject* const> objects) {
    std::vector<std::size_t> counts(m_context.coordinator->managedObjectModel().entities().size());
    std::vector<RowKey> next(counts.size());
    for (ManagedObject* object : objects) counts[object->entity().index()] += stateOf(*object).key < 0;
    for (ManagedObject* object : objects) {
        const RowKey key = stateOf(*object).key;
        if (key > 0) continue;
        const std::size_t entity = object->entity().index();
        if (next[entity] == 0) {
            auto first = session.reserveKeys(object->entity(), counts[entity]);
            if (!first) return first.error();
            next[entity] = first.value();
        }
        m_context.registry.setPermanentKey(key, next[entity]++);
    }
    return {};
}

Result<void> SaveOperation::updateRows(StoreSession& session) {
    for (Update& update : m_updates) {
        if (!update.written) continue;
        ManagedObject& object = *update.object;
        // Links that others made meanwhile do not conflict with these.
        const std::int64_t version = update.placeCount > 0 ? stateOf(object).version : -1;
        auto outcome = session.update(object.entity(), stateOf(object).key, version, placesOf(update), rowValues(object));
        if (!outcome) return outcome.error();
        Result<void> resolved;
        if (outcome.value() == WriteOutcome::changedSince) resolved = resolveConflict(session, update);
        if (outcome.value() == WriteOutcome::missing) resolved = resolveMissing(session, update);
        if (!resolved) return resolved;
        session.touched(object.entity(), ChangeKind::updated, placesOf(update));
    }
    for (ManagedObject* object : m_gone) {
        if (auto dropped = dropReferences(session, *object); !dropped) return dropped;
    }
    if (auto reconnected = reconnectRevived(session); !reconnected) return reconnected;
    return repairPartners(session);
}

/// Sets the columns of a row that no object of this save stands for to nil; without columns the row only gets a new version.
Result<void> SaveOperation::rewriteRow(StoreSession& session, const EntityDescription& entity, RowKey key,
                                       std::span<const std::size_t> places) {
    m_noValues.assign(entity.attributes().size() + entity.relationships().size(), Value());
    auto outcome = session.update(entity, key, -1, places, m_noValues);
    if (!outcome) return outcome.error();
    if (outcome.value() == WriteOutcome::written) m_rewritten.push_back({&entity, key});
    return {};
}

Result<void> SaveOperation::touchRows(StoreSession& session) {
    for (const auto& entity : m_context.coordinator->managedObjectModel().entities()) {
        for (RowKey key : m_context.changes.touched(*entity)) {
            if (auto written = rewriteRow(session, *entity, key, {}); !written) return written;
        }
    }
    return {};
}

Result<void> SaveOperation::writeLinks(StoreSession& session, ManagedObject& object) {
    ObjectState& state = stateOf(object);
    if (!state.links) return {};
    const RowKey owner = m_context.registry.permanentKey(state.key);
    for (const RelationshipDescription& relationship : object.entity().relationships()) {
        if (!relationship.manyToMany() || (relationship.inverse && relationship.inverse < &relationship)) continue;
        const LinkSet& links = state.links[relationship.index];
        for (RowKey key : links.added()) {
            const ObjectRegistry& registry = m_context.registry;
            const ManagedObject* other = registry.find(*relationship.destination, key);
            if (other ? !stateOf(*other).isAlive() || isGone(*other)
                      : registry.findDeparted(*relationship.destination, key) != nullptr)
                continue;
            const RowKey destination = registry.permanentKey(key);
            if (destination < 0) continue;  // of an object given up
            auto linked = session.link(relationship, owner, destination);
            if (!linked) return linked;
        }
        for (RowKey key : links.removed()) {
            if (auto unlinked = session.unlink(relationship, owner, key); !unlinked) return unlinked;
        }
    }
    return {};
}

Result<void> SaveOperation::record(StoreSession& session) {
    m_record = std::make_shared<ChangeRecord>();
    m_record->time = Date::now();
    m_stamp = {m_record->time, m_context.author};
    for (const ObjectRef& object : m_context.changes.inserted()) {
        if (!object) continue;
        if (auto recorded = recordChange(session, *object, ChangeKind::inserted); !recorded) return recorded;
    }
    for (const Update& update : m_updates) {
        if (!update.written || !update.byUser || isGone(*update.object)) continue;
        if (auto recorded = recordChange(session, *update.object, ChangeKind::updated); !recorded) return recorded;
    }
    for (const ObjectRef& object : m_context.changes.deleted()) {
        if (!object) continue;
        if (auto recorded = recordChange(session, *object, ChangeKind::deleted); !recorded) return recorded;
    }
    for (const Update& update : m_updates) {
        if (!update.written || update.byUser) continue;
        m_record->changes.push_back({&update.object->entity(), stateOf(*update.object).key, ChangeKind::updated, 0});
    }
    for (const RowRef& row : m_rewritten) m_record->changes.push_back({row.entity, row.key, ChangeKind::updated, 0});
    return {};
}

Result<void> SaveOperation::recordChange(StoreSession& session, ManagedObject& object, ChangeKind kind) {
    ObjectState& state = stateOf(object);
    const RowKey key = m_context.registry.permanentKey(state.key);
    auto sequence = session.appendHistory(m_stamp, object.entity(), key, kind, state.values());
    if (!sequence) return sequence.error();
    m_record->changes.push_back({&object.entity(), key, kind, sequence.value()});
    return {};
}

bool SaveOperation::waitsForKeys(ManagedObject& object) const {
    ObjectState& state = stateOf(object);
    for (const RelationshipDescription& relationship : object.entity().relationships()) {
        if (relationship.toMany) continue;
        const RowKey key = state.keyAt(placeOf(relationship));
        if (key < 0 && m_context.registry.permanentKey(key) < 0 && m_context.registry.find(*relationship.destination, key))
            return true;
    }
    return false;
}

std::span<const Value> SaveOperation::rowValues(ManagedObject& object) {
    ObjectState& state = stateOf(object);
    std::span<const Value> values = state.values();
    const std::size_t attributes = object.entity().attributes().size();
    for (std::size_t place = attributes; place < values.size(); ++place) {
        const RowKey key = state.keyAt(place);
        if (key >= 0) continue;
        if (values.data() != m_resolved.data()) {
            m_resolved.assign(values.begin(), values.end());
            values = m_resolved;
        }
        const RowKey permanent = m_context.registry.permanentKey(key);
        m_resolved[place] = permanent > 0 ? Value(permanent) : Value();  // of an object given up: no row
    }
    return values;
}

}  // namespace velkor::NS
