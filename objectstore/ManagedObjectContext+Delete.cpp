// Deletion and its rules.
#include "objectstore/ContextState.h"

namespace velkor::NS {

void ContextState::deleteObject(ManagedObject& object) {
    std::vector<ObjectRef> doomed{sharedOf(object)};
    for (std::size_t i = 0; i < doomed.size(); ++i) {
        const ObjectRef next = doomed[i];
        if (markDeleted(*next)) applyDeleteRules(*next, doomed);
    }
}

bool ContextState::markDeleted(ManagedObject& object) {
    ObjectState& state = stateOf(object);
    if (!willChange(object, true)) return false;
    for (const RelationshipDescription& relationship : object.entity().relationships()) {
        if (relationship.toMany) loadedLinksOf(object, relationship);
    }
    if (state.status == ObjectStatus::inserted) {
        depart(object);
    } else {
        changes.add(sharedOf(object), ObjectStatus::deleted);
    }
    return true;
}

void ContextState::applyDeleteRules(ManagedObject& object, std::vector<ObjectRef>& cascade) {
    for (const RelationshipDescription& relationship : object.entity().relationships()) {
        std::vector<RowKey> destinations;
        if (relationship.toMany) {
            destinations = loadedLinksOf(object, relationship).current().keys();
        } else if (const RowKey key = stateOf(object).keyAt(placeOf(relationship)); key != 0) {
            destinations.push_back(key);
        }
        if (relationship.deleteRule == DeleteRule::cascade) {
            for (RowKey key : destinations) {
                if (auto next = objectForKey(*relationship.destination, key)) cascade.push_back(std::move(next));
            }
        } else if (relationship.deleteRule == DeleteRule::nullify && relationship.inverse) {
            nullify(object, relationship, destinations);
        }
    }
}

void ContextState::nullify(ManagedObject& object, const RelationshipDescription& relationship,
                           std::span<const RowKey> destinations) {
    const EntityDescription& entity = *relationship.destination;
    std::vector<ObjectRef> others;  // all of them first, so that their faults are fired together
    for (RowKey key : destinations) {
        // What is not here keeps no links in memory: its row is touched, its links go with the object's.
        if (relationship.inverse->toMany && !registry.find(entity, key)) {
            changes.touch(entity, key);
        } else if (auto other = objectForKey(entity, key)) {
            others.push_back(std::move(other));
        }
    }
    for (const ObjectRef& other : others) leave(*other, *relationship.inverse, object, true);
}

}  // namespace velkor::NS
