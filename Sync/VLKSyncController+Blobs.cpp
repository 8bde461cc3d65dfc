// Blobs: a transfer for each binary attribute of a batch's objects, run between the service's answer and its handling.
#include <algorithm>
#include <utility>

#include "PelmoLib/NSEntityDescription+VLK.h"
#include "PelmoLib/NSManagedObjectContext+Utils.h"
#include "PelmoLib/VLKSyncableObject.h"
#include "Sync/VLKBlobDeletion.h"
#include "Sync/VLKBlobStore.h"
#include "Sync/VLKS3Deleter.h"
#include "Sync/VLKSyncController+Internal.h"
#include "objectstore/FetchRequest.h"

namespace velkor {

namespace {

/// So many failures without a success between them are reported.
constexpr std::int64_t reportedFailures = 11;

NS::Data blobOf(VLKTransaction& transaction, const std::string& attribute) {
    const auto object = transaction.obj();
    const NS::Value value = object ? object->valueForKey(attribute) : NS::Value();
    const NS::Data* blob = value.asData();
    return blob ? *blob : NS::Data();
}

}  // namespace

// --- Transfers of a batch ---

void VLKSyncController::addBlobUploadOperationForTransaction(VLKTransaction& transaction) {
    logMessage(300, "(VLKSyncController) Adding blob upload operation...");
    const auto* entity = entityDescriptionForClassNamed(transaction.objType().value_or("(null)"), m_ctx.get());
    if (!entity) return;
    const bool isUpload = !transaction.isDelete();
    const std::string guid(transaction.objGuid().value_or("(null)"));
    for (const std::string& attribute : vlk_blobs(*entity)) {
        std::shared_ptr<VLKS3Uploader> transfer;
        if (isUpload) {
            transfer = std::make_shared<VLKS3Uploader>(m_serverUrl, vlk_blobStoreURL(), NS::describe(m_appId), guid, attribute);
            transfer->setData(blobOf(transaction, attribute));
        } else {
            transfer = std::make_shared<VLKS3Deleter>(m_serverUrl, vlk_blobStoreURL(), NS::describe(m_appId), guid, attribute);
        }
        const std::weak_ptr<VLKS3Uploader> weak = transfer;
        transfer->setCompletionBlock([this, weak, isUpload](const NS::Value&) {
            m_internals->onMainQueue([this, weak, isUpload] { m_internals->blobTransferCompleted(weak.lock(), isUpload); });
        });
        transfer->setFailureBlock([this, weak](const NS::Error& error) { m_internals->blobTransferFailed(weak.lock(), error); });
        m_pendingBlobUploads.push_back(std::move(transfer));
    }
}

void VLKSyncController::processPendingBlobUploads() {
    if (m_pendingBlobUploads.empty()) {
        if (const auto answer = std::exchange(m_latestSyncResult, std::nullopt))
            m_internals->takeAnswer(*answer, m_internals->heldBatch);
        return;
    }
    const auto next = m_pendingBlobUploads.front();
    if (m_internals->runningTransfer.lock() == next) return;
    setCurrentUploadObjectNumber(m_totalObjectsToUpload - static_cast<std::int64_t>(m_pendingBlobUploads.size()));
    setSyncStatusMessageWithFormat("Uploading object %ld/%ld (--/--)...", m_currentUploadObjectNumber + 1,
                                   m_totalObjectsToUpload);
    m_internals->runningTransfer = next;
    next->start();
}

void VLKSyncController::Internals::blobTransferCompleted(const std::shared_ptr<VLKS3Uploader>& transfer, bool isUpload) {
    auto& pending = self.m_pendingBlobUploads;
    const auto place = std::find(pending.begin(), pending.end(), transfer);
    if (place == pending.end()) return;
    self.m_failedBlobUploadCount = 0;
    pending.erase(place);
    runningTransfer.reset();
    if (isUpload) self.changeReport([](VLKCycleReport& report) { ++report.blobsUp; });
    self.processPendingBlobUploads();
}

void VLKSyncController::Internals::blobTransferFailed(const std::shared_ptr<VLKS3Uploader>& transfer, const NS::Error& error) {
    const auto& pending = self.m_pendingBlobUploads;
    if (std::find(pending.begin(), pending.end(), transfer) == pending.end()) return;
    logMessage(100, "Blob upload failed for: %@", transfer->guid());
    runningTransfer.reset();
    if (++self.m_failedBlobUploadCount >= reportedFailures) self.handleFailedChangesCommandWithError(error);
    // It stays the first one and is tried again, until it succeeds or the queue has been emptied.
    onMainQueue([this] { self.processPendingBlobUploads(); });
}

void VLKSyncController::Internals::dropBlobTransfersOf(std::string_view guid) {
    std::erase_if(self.m_pendingBlobUploads, [guid](const auto& transfer) {
        if (transfer->guid() != guid) return false;
        transfer->cancel();
        return true;
    });
}

void VLKSyncController::Internals::dropBlobTransfers() {
    // What is cancelled cannot reach the blob store after the next cycle's upload of the same blob.
    for (const auto& transfer : std::exchange(self.m_pendingBlobUploads, {})) transfer->cancel();
    runningTransfer.reset();
}

// --- Deletion of all blobs ---

NS::Dictionary VLKSyncController::blobNamesForSyncableObjects() const {
    NS::Dictionary names;
    for (const NS::EntityDescription* entity : syncableEntityTypesInCtx(m_ctx.get())) {
        if (!vlk_hasBlobs(*entity)) continue;
        NS::Array blobs;
        for (const std::string& blob : vlk_blobs(*entity)) blobs.push_back(blob);
        const auto add = [&](const NS::Value& guid) {
            if (const auto text = guid.asString()) names.set(*text, blobs);
        };
        if (VLKSyncableKind(*entity).guidIsStored()) {
            // A store that cannot be read names none.
            (void)m_ctx->enumerateValues(NS::FetchRequest(entity), std::vector{std::string(VLKSyncableMember::guid)},
                                         [&](std::span<const NS::Value> values) { add(values[0]); });
        } else if (const auto objects = allEntitiesOfType(*m_ctx, entity->name())) {
            for (const auto& object : *objects) add(guidOfObject(*object));
        }
    }
    return names;
}

std::vector<std::shared_ptr<VLKS3Deleter>> VLKSyncController::deleteAllBlobsFromServerWithCallback(VLKResultCallback callback) {
    std::vector<std::shared_ptr<VLKS3Deleter>> deleters;
    for (const auto& entry : blobNamesForSyncableObjects()) {
        for (const NS::Value& name : *entry.value().asArray()) {
            deleters.push_back(
                std::make_shared<VLKS3Deleter>(m_serverUrl, NS::describe(m_appId), std::string(entry.key()), name.stringOr("")));
        }
    }
    const auto deletion = std::make_shared<VLKBlobDeletion>(deleters, std::move(callback));
    std::erase_if(m_internals->blobDeletions, [](const auto& known) { return known.expired(); });
    m_internals->blobDeletions.push_back(deletion);
    deletion->start();
    return deleters;
}

void VLKSyncController::Internals::cancelBlobDeletions() {
    for (const auto& known : std::exchange(blobDeletions, {})) {
        if (const auto deletion = known.lock()) deletion->cancel();
    }
}

}  // namespace velkor
