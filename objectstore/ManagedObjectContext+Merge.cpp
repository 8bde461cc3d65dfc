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
/// read at once, under their changes.
void ContextState::merge(const ChangeRecord& record) {
    forgetLookups();
    std::vector<std::vector<ManagedObject*>> changed(coordinator->managedObjectModel().entities().size());
    for (const ChangeRecord::Change& change : record.changes) {
        const EntityDescription* entity = ownEntity(*change.entity);
        ManagedObject* object = entity ? registry.find(*entity, change.key) : nullptr;
        if (!object) continue;
        ObjectState& state = stateOf(*object);
        if (state.status == ObjectStatus::inserted) continue;
        if (change.kind == ChangeKind::deleted) {
            loseRow(*object);
        } else if (state.status == ObjectStatus::unchanged) {
            makeFault(*object);
        } else if (state.status == ObjectStatus::updated) {
            changed[entity->index()].push_back(object);
        } else {
            state.version = unknownVersion;  // of an unsaved deletion
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
