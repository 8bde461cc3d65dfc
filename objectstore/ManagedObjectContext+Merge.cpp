// Taking in what another context has saved.
#include "objectstore/ContextState.h"
#include "platform/base/Exception.h"
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
        const ObjectStatus status = stateOf(*object).status;
        if (status == ObjectStatus::unchanged) {
            change.kind == ChangeKind::deleted ? depart(*object) : makeFault(*object);
        } else if (status == ObjectStatus::updated && change.kind != ChangeKind::deleted) {
            changed[entity->index()].push_back(object);
        } else if (status == ObjectStatus::updated && policy == MergePolicy::storeWins) {
            depart(*object);
        }
    }
    for (const auto& entity : coordinator->managedObjectModel().entities()) {
        if (changed[entity->index()].empty()) continue;
        if (auto result = refreshRows(*entity, changed[entity->index()]); !result) {
            throw Exception(InternalInconsistencyException, result.error().localizedDescription());
        }
    }
}

}  // namespace velkor::NS
