// Taking in what another context has saved.
#include "objectstore/ContextState.h"
#include "objectstore/StoreReadFailure.h"
#include "platform/concurrency/NotificationCenter.h"

namespace velkor::NS {

void ManagedObjectContext::mergeChanges(const ChangeRecord& record) {
    m_state->assertConfinement();
    m_state->merge(record);
}

void ManagedObjectContext::mergeChangesFromContextDidSaveNotification(const Notification& notification) {
    if (notification.object == this) return;
    if (const auto record = notification.userInfo[ChangeRecordKey].as<ChangeRecord>()) mergeChanges(*record);
}

/// Objects without unsaved changes become faults: who needs one reads it then, with all others that wait. Changed objects are
/// read at once, under their changes; where there is nothing to read, their save or rollback will have to look.
void ContextState::merge(const ChangeRecord& record) {
    forgetLookups();
    std::vector<std::vector<ManagedObject*>> changed(coordinator->managedObjectModel().entities().size());
    for (const ChangeRecord::Change& change : record.changes) {
        const EntityDescription* entity = ownEntity(*change.entity);
        ManagedObject* object = entity ? registry.find(*entity, change.key) : nullptr;
        if (!object) continue;
        ObjectState& state = stateOf(*object);
        const bool gone = change.kind == ChangeKind::deleted;
        if (state.status == ObjectStatus::unchanged) {
            gone ? depart(*object) : makeFault(*object);
        } else if (state.status == ObjectStatus::updated && !gone) {
            changed[entity->index()].push_back(object);
        } else if (state.status == ObjectStatus::updated && policy == MergePolicy::storeWins) {
            depart(*object);
        } else if (state.status != ObjectStatus::inserted) {
            state.version = unknownVersion;
        }
    }
    for (const auto& entity : coordinator->managedObjectModel().entities()) {
        if (changed[entity->index()].empty()) continue;
        if (auto result = refreshRows(*entity, changed[entity->index()]); !result) {
            throw StoreReadFailure(result.error());
        }
    }
}

}  // namespace velkor::NS
