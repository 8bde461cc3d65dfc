// What survives a restart: the sync state, the pending changes in it, and recovery from the store's history.
#include <utility>

#include "Sync/VLKPresentObjects.h"
#include "Sync/VLKSyncController+Internal.h"
#include "Sync/VLKSyncStateKeys.h"
#include "objectstore/PersistentStoreCoordinator.h"
#include "platform/persistence/KeyedArchiver.h"
#include "platform/persistence/UserDefaults.h"

namespace velkor {

namespace {

constexpr std::int32_t nothingApplied = -1;

}  // namespace

void VLKSyncController::loadSyncState() {
    m_syncState.emplace();
    m_internals->loadedPath = m_stateSavePath;
    if (loadLegacyDefaults()) {
        m_internals->migratedState = m_syncState;
        return;
    }
    if (m_stateSavePath) logMessage(300, "Loading state from: %@", *m_stateSavePath);
    m_syncState = m_internals->stateStore.read(m_stateSavePath);
    if (!m_syncState) return;
    // What older versions kept is no longer where it was found: until it is saved it is only here.
    if (m_syncState->empty() && m_internals->migratedState) m_syncState = m_internals->migratedState;
    m_internals->takeInstanceId();
    if (!m_syncState->contains(SyncStateKey::highest)) m_syncState->set(SyncStateKey::highest, nothingApplied);
}

bool VLKSyncController::loadLegacyDefaults() {
    NS::UserDefaults& defaults = NS::UserDefaults::standardUserDefaults();
    if (!defaults.objectForKey(SyncStateKey::highest)) return false;
    for (const std::string_view key : {SyncStateKey::highest, SyncStateKey::instance, SyncStateKey::queue}) {
        NS::Value value = defaults.objectForKey(key);
        if (!value) continue;
        if (m_syncState) m_syncState->set(key, std::move(value));
        (void)defaults.removeObjectForKey(key);
    }
    return true;
}

void VLKSyncController::Internals::takeInstanceId() {
    if (!self.m_syncState) return;
    if (const auto kept = (*self.m_syncState)[SyncStateKey::instance].asString()) self.m_instanceId = std::string(*kept);
}

void VLKSyncController::saveSyncState() {
    m_internals->logSavePath();
    m_internals->keepState();
}

void VLKSyncController::Internals::logSavePath() const {
    if (self.m_stateSavePath) logMessage(300, "Saving state to: %@", *self.m_stateSavePath);
}

bool VLKSyncController::Internals::keepState() {
    if (!self.m_syncState) return false;
    // The state must not know of changes that a power cut could still take from the store.
    if (auto durable = coordinator->makeDurable(); !durable) {
        logMessage(100, "Unable to make the store durable, the sync state is not saved: %@", durable.error());
        return false;
    }
    if (!stateStore.write(*self.m_syncState, self.m_stateSavePath)) return false;
    migratedState.reset();
    return true;
}

void VLKSyncController::load() {
    loadSyncState();
    setLastSync(m_syncState ? (*m_syncState)[SyncStateKey::lastSync].asDate() : std::nullopt);
    m_internals->takeInstanceId();
    if (const NS::Data* archive = m_syncState ? (*m_syncState)[SyncStateKey::queue].asData() : nullptr)
        m_internals->restorePendingChanges(*archive);
    if (!m_internals->history) return;
    m_internals->history->restartAfter(m_internals->historyToken());
    m_internals->fileFromHistory();
}

std::int64_t VLKSyncController::Internals::historyToken() const {
    return self.m_syncState ? (*self.m_syncState)[SyncStateKey::historyToken].asInteger().value_or(0) : 0;
}

void VLKSyncController::Internals::restorePendingChanges(const NS::Data& archive) {
    const auto root = NS::unarchiveObjectWithData(archive.view());
    const NS::Dictionary* queue = root ? root.value().asDictionary() : nullptr;
    if (!queue) return;
    VLKTransactionMap changes;
    for (const auto& entry : *queue) {
        if (auto transaction = entry.value().as<VLKTransaction>()) changes.set(entry.key(), std::move(transaction));
    }
    logMessage(200, "Loaded %d saved transactions.", changes.size());
    self.m_changes.swap(changes);
    addNewer(std::move(changes), self.m_changes);
}

void VLKSyncController::Internals::addNewer(VLKTransactionMap newer, VLKTransactionMap& transactions) {
    for (auto entry = newer.begin(); entry != newer.end(); entry = newer.begin()) {
        if (const auto older = transactions.find(entry->first); older != transactions.end())
            keepHistoryRow(*entry->second, *older->second);
        newer.moveTo(transactions, entry);
    }
}

void VLKSyncController::save() {
    logMessage(200, "Saving sync state...");
    m_internals->fileFromHistory();
    m_internals->archivePendingChanges();
    if (m_syncState) {
        if (m_lastSync) m_syncState->set(SyncStateKey::lastSync, *m_lastSync);
        if (m_instanceId) m_syncState->set(SyncStateKey::instance, *m_instanceId);
    }
    logMessage(200, "Saved state with identifier: %@", m_instanceId);
    m_internals->logSavePath();
    m_internals->keepStateAndHistoryToken();
}

void VLKSyncController::Internals::archivePendingChanges() {
    if (!self.m_syncState) return;
    NS::Dictionary queue;
    queue.reserve(self.m_changes.size());
    for (const auto& [guid, transaction] : self.m_changes) queue.set(guid, transaction);
    self.m_syncState->set(SyncStateKey::queue, NS::archivedDataWithRootObject(queue));
}

void VLKSyncController::Internals::forgetPendingChanges() {
    handleCapturedSaves();  // what was saved until now is the former user's
    self.m_changes.clear();
    batchIsForsaken = true;
    // A state that was not loaded from there is none to write over the file.
    if (loadedPath != self.m_stateSavePath) return;
    if (history) {
        if (const auto skipped = history->skipAll(); !skipped)
            logMessage(100, "Unable to read the store's history: %@", skipped.error());
    }
    archivePendingChanges();
    keepStateAndHistoryToken();
}

void VLKSyncController::Internals::keepStateAndHistoryToken() {
    const std::int64_t token = history ? history->token(oldestPendingHistoryRow()) : 0;
    if (history && self.m_syncState) self.m_syncState->set(SyncStateKey::historyToken, token);
    if (!keepState()) return;
    savePacing.saved(self.m_changes.size());
    if (history) history->forgetUpTo(token);
}

void VLKSyncController::Internals::saveAfterAnswer() {
    if (!savePacing.wait(self.m_changes.size())) self.save();
}

// --- The store's history ---

bool VLKSyncController::keepsEveryChange() const noexcept { return m_internals->history != nullptr; }

void VLKSyncController::setKeepsEveryChange(bool keeps) {
    if (keeps == keepsEveryChange()) return;
    m_internals->history = nullptr;
    if (!keeps) return;
    auto recovery = VLKHistoryRecovery::begin(m_internals->coordinator);
    if (!recovery) {
        logMessage(100, "Unable to keep the store's history: %@", recovery.error());
        return;
    }
    m_internals->history = std::move(recovery).value();
    m_internals->history->restartAfter(m_internals->historyToken());
}

void VLKSyncController::Internals::fileFromHistory() {
    if (!history) return;
    const auto changes = history->newChanges();
    if (!changes) {
        logMessage(100, "Unable to read the store's history: %@", changes.error());
        return;
    }
    VLKPresentObjects present(self.m_ctx);
    for (const auto& change : changes.value()) present.want(*change.entity, change.guid);
    const bool isKnown = present.fetch();
    for (const auto& change : changes.value()) {
        // What is filed follows the store as it is now.
        const auto type =
            change.kind == NS::ChangeKind::inserted ? VLKTransactionType::insertXaction : VLKTransactionType::updateXaction;
        auto transaction = present.transactionOfType(type, *change.entity, change.guid);
        if (change.kind == NS::ChangeKind::deleted && !(transaction && isKnown)) {
            transaction = VLKTransaction::deleteTransactionForObjectOfType(change.entity->managedObjectClassName(),
                                                                           *change.guid.asString(), self.m_ctx);
        }
        if (!transaction) continue;
        transaction->setDate(change.time);
        transaction->setHistorySequence(change.sequence);
        fileTransaction(std::move(transaction));
    }
}

std::optional<std::int64_t> VLKSyncController::Internals::oldestPendingHistoryRow() const {
    std::optional<std::int64_t> oldest;
    const auto consider = [&oldest](const VLKTransactionMap& transactions) {
        for (const auto& [guid, transaction] : transactions) {
            const std::int64_t row = transaction->historySequence();
            if (row > 0 && (!oldest || row < *oldest)) oldest = row;
        }
    };
    consider(self.m_changes);
    if (self.m_batch && !batchIsForsaken) consider(*self.m_batch);
    return oldest;
}

}  // namespace velkor
