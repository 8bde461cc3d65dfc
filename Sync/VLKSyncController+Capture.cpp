// Change capture: every save of the host's store becomes pending transactions.
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "PelmoLib/NSEntityDescription+VLK.h"
#include "PelmoLib/NSManagedObjectContext+Utils.h"
#include "PelmoLib/VLKSyncableObject.h"
#include "Sync/VLKChangeWriteOperation.h"
#include "Sync/VLKGuardedStep.h"
#include "Sync/VLKPresentObjects.h"
#include "Sync/VLKSyncController+Internal.h"
#include "objectstore/FetchRequest.h"
#include "objectstore/Predicate.h"

namespace velkor {

namespace {

using Change = VLKCapturedSave::Change;

void logMissing(const NS::Value& guid) { logMessage(100, "Unable to find requested object: %@", guid); }

/// The history rows of a save's objects.
class HistoryRows {
public:
    explicit HistoryRows(const NS::ChangeRecord* record) : m_record(record) {
        // Without history no change has a row.
        if (!record || record->changes.empty() || record->changes.front().historySequence == 0) m_record = nullptr;
    }

    std::int64_t of(const NS::ManagedObject& object) {
        if (!m_record) return 0;
        // The record lists the objects in the order of the notification's sets.
        for (std::size_t tried = 0; tried < m_record->changes.size(); ++tried) {
            const auto& change = m_record->changes[m_next];
            m_next = (m_next + 1) % m_record->changes.size();
            if (change.entity == &object.entity() && change.key == object.objectID()->key()) return change.historySequence;
        }
        return 0;
    }

private:
    const NS::ChangeRecord* m_record;
    std::size_t m_next = 0;
};

std::shared_ptr<NS::ObjectSet> objectsIn(const NS::Notification& notification, std::string_view key) {
    auto objects = notification.userInfo[key].as<NS::ObjectSet>();
    return objects ? objects : std::make_shared<NS::ObjectSet>();
}

/// The syncable ones among the objects, with their guids. Raises for one without a guid.
std::vector<Change> changesOf(const NS::ObjectSet& objects, VLKSyncableKinds& kinds, HistoryRows& rows) {
    std::vector<Change> changes;
    changes.reserve(objects.size());
    for (const auto& object : objects) {
        const VLKSyncableKind& kind = kinds.of(object->entity());
        if (!kind.syncable() || kind.excludesFromCapture(*object)) continue;
        NS::Value guid = guidOfObject(*object);
        if (!guid) {
            logMessage(100, "Object of type: %@ is syncable but has no GUID.", object->entity().managedObjectClassName());
            throw NS::Exception(NS::InvalidArgumentException, "A set of GUIDs cannot hold a nil value.");
        }
        changes.push_back({&object->entity(), std::move(guid), rows.of(*object)});
    }
    return changes;
}

std::vector<Change> deletionsOf(const NS::ObjectSet& objects, VLKSyncableKinds& kinds, HistoryRows& rows) {
    std::vector<Change> changes;
    for (const auto& object : objects) {
        const VLKSyncableKind& kind = kinds.of(object->entity());
        if (!kind.syncable() || kind.excludesFromCapture(*object)) continue;
        NS::Value guid = guidOfObject(*object);
        if (!guid) {
            logMessage(100, "ERROR: Deletion of syncable object of type %@ without a GUID object: %@",
                       object->entity().managedObjectClassName(), *object);
            continue;
        }
        changes.push_back({&object->entity(), std::move(guid), rows.of(*object)});
    }
    return changes;
}

/// Gives the changes of another store the entities of this model.
void moveToModel(std::vector<Change>& changes, const NS::ManagedObjectModel& model) {
    std::erase_if(changes, [&](Change& change) {
        change.entity = model.entityNamed(change.entity->name());
        if (!change.entity) logMissing(change.guid);
        return !change.entity;
    });
}

NS::Array guidsOf(const std::vector<Change>& changes) {
    NS::Array guids;
    for (const Change& change : changes) guids.push_back(change.guid);
    return guids;
}

}  // namespace

// --- From a save to the pending changes ---

void VLKSyncController::dataChanged(const NS::Notification& notification) {
    const auto* context = dynamic_cast<const NS::ManagedObjectContext*>(notification.object);
    VLKCapturedSave save;
    // Of another store nothing can be merged; its objects are looked up here all the same.
    const bool ownStore = context && context->persistentStoreCoordinator() == m_internals->coordinator;
    if (ownStore) save.record = notification.userInfo[NS::ChangeRecordKey].as<const NS::ChangeRecord>();
    if (m_observing) {
        if (context == m_ctx.get() || m_internals->isContextOfRunningWrite(context)) return;
        VLKSyncableKinds kinds;
        HistoryRows rows(save.record.get());
        const auto inserted = objectsIn(notification, NS::InsertedObjectsKey);
        const auto updated = objectsIn(notification, NS::UpdatedObjectsKey);
        const auto deleted = objectsIn(notification, NS::DeletedObjectsKey);
        save.inserted = changesOf(*inserted, kinds, rows);
        save.updated = changesOf(*updated, kinds, rows);
        logMessage(300, "Detected changed objects.");
        logMessage(300, "Inserted: %d Updated: %d Deleted: %d", inserted->size(), updated->size(), deleted->size());
        save.deleted = deletionsOf(*deleted, kinds, rows);
        if (VLKLog::sharedInstance().isLoggingEnabledOfType(400)) {
            logMessage(400, "Inserted guids: %@", guidsOf(save.inserted));
            logMessage(400, "Updated guids: %@", guidsOf(save.updated));
        }
        if (!ownStore) {
            for (auto* changes : {&save.inserted, &save.updated, &save.deleted})
                moveToModel(*changes, m_internals->coordinator->managedObjectModel());
        }
    }
    if (m_internals->capturedSaves->add(std::move(save)))
        m_internals->onMainQueue([this] { m_internals->handleCapturedSaves(); });
}

bool VLKSyncController::Internals::isContextOfRunningWrite(const NS::ManagedObjectContext* context) const {
    for (const auto& operation : self.m_saveQueue->operations()) {
        const auto* write = dynamic_cast<const VLKChangeWriteOperation*>(operation.get());
        if (write && write->ctx().get() == context) return true;
    }
    return false;
}

/// All saves that wait are handled together, with one fetch an entity; what is filed, and in which order, is as if each had been
/// handled alone, since every fetch sees the store as it is now.
void VLKSyncController::Internals::handleCapturedSaves() {
    const auto saves = capturedSaves->takeAll();
    VLKPresentObjects present(self.m_ctx);
    for (const VLKCapturedSave& save : saves) {
        if (save.record) runGuarded([&] { self.m_ctx->mergeChanges(*save.record); });
        for (const auto* changes : {&save.inserted, &save.updated}) {
            for (const Change& change : *changes) present.want(*change.entity, change.guid);
        }
    }
    present.fetch();
    for (const VLKCapturedSave& save : saves) runGuarded([&] { fileCapturedSave(save, present); });
}

void VLKSyncController::Internals::fileCapturedSave(const VLKCapturedSave& save, const VLKPresentObjects& present) {
    const auto file = [&](std::shared_ptr<VLKTransaction> transaction, const Change& change) {
        if (change.historySequence > 0) {
            transaction->setHistorySequence(change.historySequence);
            transaction->setDate(save.record->time);
        }
        fileTransaction(std::move(transaction));
    };
    const auto filePresent = [&](std::string_view type, const std::vector<Change>& changes) {
        for (const Change& change : changes) {
            if (auto transaction = present.transactionOfType(type, *change.entity, change.guid)) {
                file(std::move(transaction), change);
            } else {
                logMissing(change.guid);
            }
        }
    };
    filePresent(VLKTransactionType::insertXaction, save.inserted);
    filePresent(VLKTransactionType::updateXaction, save.updated);
    for (const Change& change : save.deleted) {
        file(VLKTransaction::deleteTransactionForObjectOfType(change.entity->managedObjectClassName(), *change.guid.asString(),
                                                              self.m_ctx),
             change);
    }
    if (!history || !save.record) return;
    for (const auto& change : save.record->changes) {
        if (change.historySequence > 0) history->captured(change.historySequence);
    }
}

void VLKSyncController::Internals::fileTransaction(std::shared_ptr<VLKTransaction> transaction) {
    const std::string guid(transaction->objGuid().value_or(""));
    const std::int64_t row = transaction->historySequence();
    const auto older = self.m_changes.find(guid);
    if (older == self.m_changes.end()) {
        self.m_changes.set(guid, std::move(transaction));
    } else {
        // What stands for this row already, or in the state of a later save, stays.
        if (row > 0 && older->second->historySequence() >= row) return;
        keepHistoryRow(*transaction, *older->second);
        older->second = std::move(transaction);
    }
    if (!history || row == 0) savePacing.changeFiled();
}

// --- Operations on objects ---

bool VLKSyncController::objectIsSyncable(const NS::ManagedObject& object) const {
    const VLKSyncableKind kind(object.entity());
    return kind.syncable() && !kind.excludesFromCapture(object);
}

bool VLKSyncController::classIsSyncable(const NS::ObjectClass* objectClass) const noexcept {
    return conformsToSyncableProtocol(objectClass);
}

std::vector<const NS::EntityDescription*> VLKSyncController::syncableEntityTypesInCtx(const NS::ManagedObjectContext* ctx) const {
    return velkor::syncableEntityTypesInCtx(ctx);
}

NS::Array VLKSyncController::guidsForObjects(const NS::ObjectSet& objects) const {
    VLKSyncableKinds kinds;
    HistoryRows noRows(nullptr);
    std::unordered_set<std::string> seen;
    NS::Array guids;
    for (Change& change : changesOf(objects, kinds, noRows)) {
        if (seen.insert(change.guid.stringOr("")).second) guids.push_back(std::move(change.guid));
    }
    return guids;
}

void VLKSyncController::addChangesOfType(std::string_view type, const NS::ObjectSet& objects) {
    for (const auto& object : objects) {
        if (!objectIsSyncable(*object)) continue;
        const NS::Value guid = guidOfObject(*object);
        if (!guid) {
            logMessage(100, "ERROR: Syncable object with no GUID!");
            continue;
        }
        if (!object->managedObjectContext()) logMessage(100, "No managed object context for object: %s", guid);
        m_internals->fileTransaction(VLKTransaction::transactionOfType(type, object));
    }
}

void VLKSyncController::addDeletesForObjectsWithGuids(const std::vector<VLKDeleteRecord>& records) {
    for (const auto& [className, guid] : records) {
        m_internals->fileTransaction(VLKTransaction::deleteTransactionForObjectOfType(className, guid, m_ctx));
    }
}

// --- Look-ups by guid ---

NS::ObjectSet VLKSyncController::objectsOfType(const NS::EntityDescription& entity, const NS::Array& guids,
                                               NS::ManagedObjectContext& ctx) const {
    NS::FetchRequest request(&entity);
    request.predicate = NS::Predicate::in(VLKSyncableMember::guid, guids);
    auto objects = ctx.executeFetchRequest(request);
    return objects ? NS::ObjectSet(std::move(objects).value()) : NS::ObjectSet();
}

NS::ObjectSet VLKSyncController::objectsForGuids(const NS::Array& guids, NS::ManagedObjectContext& ctx) const {
    NS::ObjectSet found;
    std::unordered_set<std::string> foundGuids;
    for (const NS::EntityDescription* entity : syncableEntityTypesInCtx(&ctx)) {
        const VLKSyncableKind kind(*entity);
        for (const auto& object : objectsOfType(*entity, guids, ctx)) {
            if (kind.excludesFromCapture(*object)) continue;
            foundGuids.insert(guidOfObject(*object).stringOr(""));
            found.insert(object);
        }
    }
    if (!VLKLog::sharedInstance().isLoggingEnabledOfType(100)) return found;
    for (const NS::Value& guid : guids) {
        if (!foundGuids.contains(guid.stringOr(""))) logMissing(guid);
    }
    return found;
}

NS::ObjectSet VLKSyncController::objectsForGuids(const NS::Array& guids) const { return objectsForGuids(guids, *m_ctx); }

std::shared_ptr<NS::ManagedObject> VLKSyncController::objectForGuid(std::string_view guid, NS::ManagedObjectContext& ctx) const {
    for (const NS::EntityDescription* entity : syncableEntityTypesInCtx(&ctx)) {
        NS::FetchRequest request(entity);
        request.predicate = NS::Predicate::equal(VLKSyncableMember::guid, guid);
        request.limit = 1;
        if (auto object = firstMatchForRequest(ctx, request)) return object;
    }
    return nullptr;
}

void VLKSyncController::createTransactionsForObjectsFromJSON(const NS::Array& guids) {
    addTransactionsForGenericObjectsInSet(guids);
    VLKPresentObjects present(m_ctx);
    const auto entities = syncableEntityTypesInCtx(m_ctx.get());
    for (const NS::EntityDescription* entity : entities) {
        for (const NS::Value& guid : guids) {
            if (guid.isString()) present.want(*entity, guid);
        }
    }
    present.fetch();
    std::unordered_set<std::string> seen;
    for (const NS::Value& guid : guids) {
        if (!guid.isString() || !seen.insert(guid.stringOr("")).second) continue;
        bool found = false;
        for (const NS::EntityDescription* entity : entities) {
            auto transaction = present.transactionOfType(VLKTransactionType::insertXaction, *entity, guid);
            if (!transaction) continue;
            m_internals->fileTransaction(std::move(transaction));
            found = true;
        }
        if (!found) logMissing(guid);
    }
}

}  // namespace velkor
