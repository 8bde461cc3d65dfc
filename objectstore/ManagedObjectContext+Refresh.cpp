// Rows and the objects that stand for them: firing faults, bringing objects up to date.
#include <algorithm>

#include "objectstore/ContextState.h"
#include "objectstore/ManagedObjectID.h"
#include "objectstore/StoreReadFailure.h"
#include "platform/base/Format.h"

namespace velkor::NS {

namespace {
constexpr std::size_t faultsFiredTogether = 1000;
}

void ContextState::fire(ManagedObject& fault) {
    assertConfinement();
    const auto batch = registry.faultsWith(fault, faultsFiredTogether);
    if (auto result = refreshRows(fault.entity(), batch); !result) {
        throw StoreReadFailure(result.error());
    }
}

Result<void> ContextState::refreshRows(const EntityDescription& entity, const std::vector<ManagedObject*>& objects,
                                       void (ContextState::*rowIsGone)(ManagedObject&)) {
    KeySet missing;
    for (ManagedObject* object : objects) missing.insert(stateOf(*object).key);
    const std::vector<RowKey> wanted = missing.keys();
    auto session = coordinator->session();
    if (!session) return session.error();
    auto result = session.value()->rows(entity, wanted, [&](StoredRow&& row) {
        missing.erase(row.key);
        if (ManagedObject* object = registry.find(entity, row.key)) refresh(*object, row);
    });
    if (!result) return result;
    for (RowKey key : missing) {
        if (ManagedObject* object = registry.find(entity, key)) (this->*rowIsGone)(*object);
    }
    loseOverruled();
    return {};
}

void ContextState::takeRow(ManagedObject& object, StoredRow& row) {
    ObjectState& state = stateOf(object);
    if (state.fault) {
        registry.removeFault(object);
        state.fault = false;
    } else {
        if (state.version == row.version) return;
        for (const RelationshipDescription& relationship : object.entity().relationships()) {
            if (relationship.toMany) continue;
            const std::size_t place = placeOf(relationship);
            inverseFollows(object, relationship, state.keyAt(place), row.values[place].asInteger().value_or(0));
        }
    }
    for (const RelationshipDescription& relationship : object.entity().relationships()) {
        if (relationship.toMany) continue;
        if (const auto key = row.values[placeOf(relationship)].asInteger()) forgetDeparted(*relationship.destination, *key);
    }
    state.links.reset();
    state.version = row.version;
    if (!lookups.empty()) lookups.addRow(object.entity(), row.values, state.key);
    std::move(row.values.begin(), row.values.end(), state.values().begin());
}

void ContextState::mergeRow(ManagedObject& object, StoredRow& row) {
    ObjectState& state = stateOf(object);
    if (!state.snapshot || state.version == row.version) return;
    Snapshot& snapshot = *state.snapshot;
    const std::size_t attributes = object.entity().attributes().size();
    for (std::size_t place = 0; place < row.values.size(); ++place) {
        Value& value = state.values()[place];
        Value& fresh = row.values[place];
        if (fresh == snapshot.values[place]) continue;
        const auto* relationship = place < attributes ? nullptr : &object.entity().relationships()[place - attributes];
        if (value == snapshot.values[place]) {
            if (relationship) inverseFollows(object, *relationship, state.keyAt(place), fresh.asInteger().value_or(0));
            value = fresh;
        } else if (relationship && relationship->inverse && fresh && !(fresh == value)) {
            overruled.push_back({sharedOf(object), relationship, *fresh.asInteger()});
        }
        snapshot.values[place] = std::move(fresh);
    }
    state.version = row.version;
    if (!lookups.empty()) lookups.addRow(object.entity(), state.values(), state.key);
    for (const RelationshipDescription& relationship : object.entity().relationships()) {
        if (state.links && relationship.toMany) state.links[relationship.index].unload();
    }
}

/// Where an unsaved destination stays in place of the one that somebody else has saved, that one loses the object.
void ContextState::loseOverruled() {
    const auto pending = std::move(overruled);
    overruled.clear();
    for (const auto& [object, toOne, destination] : pending) {
        if (const ObjectRef loser = objectForKey(*toOne->destination, destination))
            leave(*loser, *toOne->inverse, *object, false);
    }
}

void ContextState::inverseFollows(ManagedObject& object, const RelationshipDescription& toOne, RowKey from, RowKey to) {
    if (from == to || !toOne.inverse || !toOne.inverse->toMany) return;
    const RowKey key = stateOf(object).key;
    const auto linksAt = [&](RowKey destination) -> LinkSet* {
        ManagedObject* known = destination != 0 ? registry.find(*toOne.destination, destination) : nullptr;
        return known && stateOf(*known).links ? &stateOf(*known).links[toOne.inverse->index] : nullptr;
    };
    if (LinkSet* links = linksAt(from)) links->storeRemoved(key);
    if (LinkSet* links = linksAt(to)) links->storeAdded(key);
}

void ContextState::makeFault(ManagedObject& object) {
    ObjectState& state = stateOf(object);
    state.links.reset();
    if (state.fault || state.status != ObjectStatus::unchanged) return;
    std::fill(state.values().begin(), state.values().end(), Value());
    state.fault = true;
    registry.addFault(object);
}

void ContextState::loseRow(ManagedObject& object) {
    ObjectState& state = stateOf(object);
    if (state.isChanged() && policy != MergePolicy::storeWins) {
        state.version = unknownVersion;
    } else if (state.status != ObjectStatus::deleted) {
        depart(object);
    }
}

void ContextState::depart(ManagedObject& object) {
    const auto held = sharedOf(object);
    ObjectState& state = stateOf(object);
    forgetDeparted(object.entity(), state.key);
    registry.depart(object);
    state.fault = false;
    if (state.status == ObjectStatus::updated) forgetUnsavedLinksTo(object);
    if (state.isChanged()) changes.remove(object, ObjectStatus::departed);
    state.status = ObjectStatus::departed;
    state.snapshot.reset();
}

void ContextState::forgetDeparted(const EntityDescription& entity, RowKey key) noexcept {
    if (!registry.hasDeparted(entity)) return;
    ManagedObject* object = registry.findDeparted(entity, key);
    if (!object) return;
    registry.remove(*object);
    detach(*object);
}

/// Nobody is to be saved as leading to an object whose row is gone.
void ContextState::forgetUnsavedLinksTo(ManagedObject& object) {
    ObjectState& state = stateOf(object);
    for (const RelationshipDescription& relationship : object.entity().relationships()) {
        if (!relationship.inverse) continue;
        std::vector<RowKey> others;
        if (!relationship.toMany) {
            others.push_back(state.keyAt(placeOf(relationship)));
        } else if (state.links) {
            others = state.links[relationship.index].added().keys();
        }
        for (RowKey key : others) {
            ManagedObject* other = key != 0 ? registry.find(*relationship.destination, key) : nullptr;
            if (other && stateOf(*other).isChanged()) leave(*other, *relationship.inverse, object, true);
        }
    }
}

/// Gives up the object's own unsaved changes. Links of a one-to-many relationship are their children's changes, and stay.
void ContextState::dropChanges(ManagedObject& object) {
    ObjectState& state = stateOf(object);
    const Snapshot original = *state.snapshot;
    for (const RelationshipDescription& relationship : object.entity().relationships()) {
        if (!relationship.toMany) {
            const RowKey key = original.values[placeOf(relationship)].asInteger().value_or(0);
            const ObjectRef destination = key == 0 ? nullptr : objectForKey(*relationship.destination, key);
            setDestination(object, relationship, destination.get());
        } else if (relationship.manyToMany() && state.links) {
            const LinkSet& links = state.links[relationship.index];
            const auto added = links.added().keys();
            const auto removed = links.removed().keys();
            const auto undo = [&](RowKey key, bool linked) {
                if (const ObjectRef other = objectForKey(*relationship.destination, key)) {
                    changeLink(object, relationship, *other, linked);
                } else {  // a new object that was given up
                    linksOf(object, relationship).remove(key, false);
                }
            };
            for (RowKey key : added) undo(key, false);
            for (RowKey key : removed) undo(key, true);
        }
    }
    std::copy(original.values.begin(), original.values.end(), state.values().begin());
    const auto changed = [&](const RelationshipDescription& relationship) {
        return state.links && relationship.toMany && state.links[relationship.index].hasChanges();
    };
    const auto relationships = object.entity().relationships();
    if (std::any_of(relationships.begin(), relationships.end(), changed)) return;
    state.snapshot.reset();
    changes.remove(object, ObjectStatus::unchanged);
    makeFault(object);
}

void ManagedObjectContext::refreshObject(const std::shared_ptr<ManagedObject>& object, bool mergeChanges) {
    m_state->assertConfinement();
    if (!object || object->managedObjectContext() != this) return;
    ObjectState& state = stateOf(*object);
    if (!mergeChanges) {
        if (state.status == ObjectStatus::updated) m_state->dropChanges(*object);
        if (state.status == ObjectStatus::unchanged) m_state->makeFault(*object);
        m_state->lookups.clear();
    } else if (state.status == ObjectStatus::updated || state.status == ObjectStatus::unchanged) {
        if (auto result = m_state->refreshRows(object->entity(), {object.get()}); !result) {
            throw StoreReadFailure(result.error());
        }
    }
}

Result<void> ManagedObjectContext::refreshObjects(const std::vector<std::shared_ptr<ManagedObject>>& objects) {
    m_state->assertConfinement();
    std::vector<std::vector<ManagedObject*>> byEntity(managedObjectModel().entities().size());
    for (const auto& object : objects) {
        if (!object || object->managedObjectContext() != this) continue;
        const auto status = stateOf(*object).status;
        if (status == ObjectStatus::unchanged || status == ObjectStatus::updated) {
            byEntity[object->entity().index()].push_back(object.get());
        }
    }
    for (const auto& entity : managedObjectModel().entities()) {
        if (byEntity[entity->index()].empty()) continue;
        auto result = m_state->refreshRows(*entity, byEntity[entity->index()], &ContextState::depart);
        if (!result) return result;
    }
    return {};
}

Result<std::shared_ptr<ManagedObject>> ManagedObjectContext::existingObjectWithID(const ManagedObjectID& objectID) {
    auto object = objectWithID(objectID);
    bool exists = object && !object->isDeleted();
    if (exists && !object->isInserted()) {
        if (auto result = m_state->refreshRows(object->entity(), {object.get()}); !result) return result.error();
        exists = !object->isDeleted() && stateOf(*object).version != unknownVersion;
    }
    if (exists) return object;
    return Error::withDescription(PlatformErrorDomain, StoreError::noSuchObject,
                                  format("there is no object %@", objectID.URIRepresentation()));
}

}  // namespace velkor::NS
