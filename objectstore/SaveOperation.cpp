#include "objectstore/SaveOperation.h"

#include <algorithm>

#include "objectstore/StoreReadFailure.h"
#include "platform/base/Format.h"
#include "platform/concurrency/NotificationCenter.h"

namespace velkor::NS {

namespace {

constexpr int mostAttempts = 10;

Error invalid(std::int64_t code, std::string_view text) { return Error::withDescription(PlatformErrorDomain, code, text); }

}  // namespace

Result<void> SaveOperation::run() {
    Result<void> result;
    try {
        result = transact();
    } catch (const StoreReadFailure& failure) {  // validation and delete rules follow relationships
        result = failure.error();
    }
    if (!result) {
        m_context.registry.forgetPermanentKeys();
        return result;
    }
    settle();
    if (m_record) announce();
    return {};
}

/// Writes everything and commits; leaves no record when there was nothing to write.
Result<void> SaveOperation::transact() {
    gather();
    if (auto valid = validate(); !valid) return valid;
    if (!hasWork()) return {};
    auto session = m_context.coordinator->session();
    if (!session) return session.error();
    StoreSession& store = *session.value();
    for (int attempt = 0; attempt < mostAttempts; ++attempt) {
        Result<void> result = store.begin();
        if (result) result = write(store);
        if (result && m_stale.empty()) result = store.commit();
        if (!result) {
            store.rollback();
            return result;
        }
        if (m_stale.empty()) return {};
        store.rollback();
        if (result = prepareDeletionsAnew(store); !result) return result;
        gather();
        if (result = validate(); !result) return result;
    }
    return invalid(StoreError::mergeConflict, "The objects to delete keep changing in the store.");
}

// ---- What is to be written ----

void SaveOperation::gather() {
    m_updates.clear();
    m_places.clear();
    for (const ObjectRef& object : m_context.changes.updated()) {
        if (object) gatherUpdate(*object);
    }
}

void SaveOperation::gatherUpdate(ManagedObject& object) {
    ObjectState& state = stateOf(object);
    const Snapshot& snapshot = *state.snapshot;
    Update update{&object, m_places.size(), 0, false, false};
    for (std::size_t place = 0; place < state.count; ++place) {
        if (state.values()[place] == snapshot.values[place]) continue;
        m_places.push_back(place);
        const auto& nullified = snapshot.nullifiedByRule;
        if (std::find(nullified.begin(), nullified.end(), place) == nullified.end()) update.byUser = true;
    }
    update.placeCount = m_places.size() - update.firstPlace;
    update.written = update.placeCount > 0;
    if (state.links) {
        for (const LinkSet& links : std::span(state.links.get(), object.entity().relationships().size())) {
            update.written |= links.hasChanges();
            update.byUser |= links.differs();
        }
    }
    m_updates.push_back(update);
}

bool SaveOperation::hasWork() const {
    const auto any = [](const ChangeTracker::List& list) {
        return std::any_of(list.begin(), list.end(), [](const ObjectRef& object) { return object != nullptr; });
    };
    return any(m_context.changes.inserted()) || any(m_context.changes.deleted()) || m_context.changes.hasTouched() ||
           std::any_of(m_updates.begin(), m_updates.end(), [](const Update& update) { return update.written; });
}

Result<void> SaveOperation::validate() {
    for (const ObjectRef& object : m_context.changes.inserted()) {
        if (!object) continue;
        if (auto valid = checkRequiredLinks(*object); !valid) return valid;
    }
    for (const Update& update : m_updates) {
        if (!update.written) continue;
        if (auto valid = checkRequiredLinks(*update.object); !valid) return valid;
    }
    for (const ObjectRef& object : m_context.changes.deleted()) {
        if (!object) continue;
        if (auto valid = checkDenials(*object); !valid) return valid;
    }
    return {};
}

/// Values are checked by the store as it writes them.
Result<void> SaveOperation::checkRequiredLinks(ManagedObject& object) {
    ObjectState& state = stateOf(object);
    for (const RelationshipDescription& relationship : object.entity().relationships()) {
        if (!relationship.toMany || relationship.optional) continue;
        const bool changed = state.links && state.links[relationship.index].hasChanges();
        if (state.status == ObjectStatus::updated && !changed) continue;
        if (!m_context.loadedLinksOf(object, relationship).current().empty()) continue;
        return invalid(StoreError::validation,
                       format("%@.%@ needs at least one object.", object.entity().name(), relationship.name));
    }
    return {};
}

Result<void> SaveOperation::checkDenials(ManagedObject& object) {
    for (const RelationshipDescription& relationship : object.entity().relationships()) {
        if (relationship.deleteRule != DeleteRule::deny) continue;
        const auto remains = [&](RowKey key) {
            const ManagedObject* other = m_context.registry.find(*relationship.destination, key);
            return key != 0 && (!other || stateOf(*other).isAlive());
        };
        const bool denied = relationship.toMany
                                ? std::ranges::any_of(m_context.loadedLinksOf(object, relationship).current(), remains)
                                : remains(stateOf(object).keyAt(placeOf(relationship)));
        if (!denied) continue;
        return invalid(StoreError::deleteDenied, format("%@ cannot be deleted while its relationship %@ leads to other objects.",
                                                        object.description(), relationship.name));
    }
    return {};
}

// ---- After the commit ----

void SaveOperation::settle() {
    m_context.adoptPermanentKeys();
    m_lists = m_context.changes.take();
    for (const ObjectRef& object : m_lists.inserted) settleInserted(*object);
    for (const Update& update : m_updates) settleUpdated(update);
    for (const Resolution& resolution : m_resolutions) settleResolved(resolution);
    for (const ObjectRef& object : m_lists.deleted) settleDeleted(*object);
    for (ManagedObject* object : m_gone) m_context.depart(*object);
    for (const RowRef& row : m_rewritten) {
        if (ManagedObject* object = m_context.registry.find(*row.entity, row.key)) m_context.makeFault(*object);
    }
    m_context.registry.clearTemporaries();
    m_context.forgetLookups();
}

void SaveOperation::settleInserted(ManagedObject& object) {
    ObjectState& state = stateOf(object);
    if (state.key < 0) {
        state.key = m_context.registry.permanentKey(state.key);
        m_context.registry.add(object);
    }
    state.version = firstVersion;
    state.status = ObjectStatus::unchanged;
    state.commitLinks(object.entity());
}

void SaveOperation::settleUpdated(const Update& update) {
    ObjectState& state = stateOf(*update.object);
    state.status = ObjectStatus::unchanged;
    state.snapshot.reset();
    state.commitLinks(update.object->entity());
    if (state.version == unknownVersion) {
        m_context.makeFault(*update.object);
    } else if (update.written) {
        ++state.version;
    }
}

void SaveOperation::settleResolved(const Resolution& resolution) {
    ManagedObject& object = *resolution.object;
    ObjectState& state = stateOf(object);
    if (state.fault) return;  // is read anew
    for (const RelationshipDescription& relationship : object.entity().relationships()) {
        if (relationship.toMany) continue;
        const std::size_t place = placeOf(relationship);
        const RowKey settled = resolution.values[place].asInteger().value_or(0);
        m_context.inverseFollows(object, relationship, state.keyAt(place), settled);
        m_context.inverseFollows(object, relationship, resolution.rowValues[place].asInteger().value_or(0), settled);
    }
    std::copy(resolution.values.begin(), resolution.values.end(), state.values().begin());
    state.version = resolution.version;
    state.links.reset();
}

void SaveOperation::settleDeleted(ManagedObject& object) {
    ObjectState& state = stateOf(object);
    for (const RelationshipDescription& relationship : object.entity().relationships()) {
        if (!relationship.inverse || !relationship.inverse->toMany) continue;
        const auto forget = [&](RowKey key) {
            ManagedObject* other = key != 0 ? m_context.registry.find(*relationship.destination, key) : nullptr;
            if (other && other != &object && stateOf(*other).links)
                stateOf(*other).links[relationship.inverse->index].storeRemoved(state.key);
        };
        if (relationship.toMany) {
            for (RowKey key : m_context.linksOf(object, relationship).current()) forget(key);  // loaded by the deletion
        } else {
            forget(state.keyAt(placeOf(relationship)));
        }
    }
    state.commitLinks(object.entity());
    state.status = ObjectStatus::unchanged;
    m_context.depart(object);
}

void SaveOperation::announce() {
    std::vector<ObjectRef> updated;
    for (const Update& update : m_updates) {
        if (update.written && update.byUser && !isGone(*update.object)) updated.push_back(sharedOf(*update.object));
    }
    const auto set = [](std::vector<ObjectRef> objects) {
        return Value(std::make_shared<ObjectSet>(ObjectSet::ofDistinct(std::move(objects))));
    };
    const auto held = m_context.context.shared_from_this();  // an observer may let go of the context
    NotificationCenter::defaultCenter().post(ManagedObjectContextDidSaveNotification, &m_context.context,
                                             {{InsertedObjectsKey, set(std::move(m_lists.inserted))},
                                              {UpdatedObjectsKey, set(std::move(updated))},
                                              {DeletedObjectsKey, set(std::move(m_lists.deleted))},
                                              {ChangeRecordKey, Value(std::move(m_record))}});
}

}  // namespace velkor::NS
