// Batching: pending changes become one request.
#include <utility>

#include "PelmoLib/encodings/NSDate+Utils.h"
#include "Sync/VLKBatchWriter.h"
#include "Sync/VLKSchemaSerializer.h"
#include "Sync/VLKSyncController+Internal.h"
#include "Sync/VLKSyncStateKeys.h"
#include "json/JSONWriter.h"
#include "objectstore/PersistentStoreCoordinator.h"

namespace velkor {

namespace {

/// Transactions in one request when chunking is on.
constexpr std::size_t chunkSize = 100;

/// What the service cannot do without.
const NS::Value& required(const NS::Value& value, std::string_view key) {
    if (!value) throw NS::Exception(NS::InvalidArgumentException, NS::format("The request needs a value for \"%@\".", key));
    return value;
}

NS::Value valueOf(const std::optional<std::string>& text) { return text ? NS::Value(*text) : NS::Value(); }

}  // namespace

std::optional<std::string> VLKSyncController::batchCurrentChanges() {
    setSyncStatusMessageWithFormat("Batching changes...");
    if (dataToBeSent()) m_internals->postOnMainQueue(VLKStartingSyncNotification);
    readyCurrentChunk();
    removeBadTransactionsFromBatch(*m_batch);
    auto json = m_internals->requestEnvelope();
    logMessage(400, "Sending data to server: %@", json);
    return json;
}

std::optional<std::string> VLKSyncController::Internals::requestEnvelope() {
    static const NS::Dictionary noState;
    const NS::Dictionary& state = self.m_syncState ? *self.m_syncState : noState;
    std::string json;
    JSONWriter writer(json);
    writer.beginObject();
    writer.key("xactions");
    for (const std::string& guid : VLKBatchWriter().writeTransactions(writer, *self.m_batch))
        dropBadTransaction(*self.m_batch, guid);
    writer.member(SyncStateKey::highest, required(state[SyncStateKey::highest], SyncStateKey::highest));
    writer.member("current_time", NS::Date::now());
    writer.member("protocol_version", VLKProtocolVersion);
    if (self.m_appId) writer.member("app_id", *self.m_appId);
    if (self.m_apiKey) writer.member("api_key", *self.m_apiKey);
    writer.member("model_version", required(valueOf(self.m_latestModelVersion), "model_version"));
    writer.member("instance_id", required(valueOf(self.m_instanceId), "instance_id"));
    writer.member("multi_part", self.dataToBeSent());
    // Whole further chunks only.
    if (self.dataToBeSent()) writer.member("parts_remaining", self.m_changes.size() / chunkSize);
    writer.member("client_date", todayAtMidnight());
    if (state[SyncStateKey::schemaSent] != valueOf(self.m_latestModelVersion)) {
        if (auto schema = VLKSchemaSerializer(self.m_ctx).asJSON()) writer.member("schema", *schema);
    }
    writer.endObject();
    transactionsInRequest = 0;
    for (const auto& [guid, transaction] : *self.m_batch) transactionsInRequest += !transaction->isGenericValue();
    if (writer.ok()) return json;
    logMessage(100, "Unable to write the request: %@", writer.failure());
    return std::nullopt;
}

void VLKSyncController::readyCurrentChunk() {
    updateSyncStatusWithMessage("Uploading...", m_percentSyncComplete);
    m_failedBlobUploadCount = 0;
    VLKTransactionMap chunk;
    while (!m_changes.empty() && !(m_enableChunking && chunk.size() == chunkSize)) m_changes.moveTo(chunk, m_changes.begin());
    m_batch = std::move(chunk);
    ++m_internals->batchNumber;
    m_internals->batchIsForsaken = false;
    if (const auto loaded = VLKBatchWriter::loadObjects(*m_batch); !loaded)
        throw NS::Exception(NS::InternalInconsistencyException,
                            NS::format("Unable to bring the batch up to date: %@", loaded.error()));
    for (const auto& [guid, transaction] : *m_batch) {
        if (!transaction->isGenericValue() && transaction->objectHasBlobs()) addBlobUploadOperationForTransaction(*transaction);
    }
}

void VLKSyncController::removeBadTransactionsFromBatch(VLKTransactionMap& batch) {
    std::vector<std::string> bad;
    for (const auto& [guid, transaction] : batch) {
        if (!transaction->isGenericValue() && !transaction->isDelete() && !transaction->obj()) bad.push_back(guid);
    }
    for (const std::string& guid : bad) m_internals->dropBadTransaction(batch, guid);
}

void VLKSyncController::Internals::dropBadTransaction(VLKTransactionMap& batch, const std::string& guid) {
    logMessage(100, "Removing bad transaction for: %@", guid);
    batch.erase(guid);
    dropBlobTransfersOf(guid);
}

void VLKSyncController::dropPendingTransactions() { m_changes.clear(); }

void VLKSyncController::resetBatch() {
    if (!m_batch) return;
    if (!m_latestSyncResult) m_internals->dropBlobTransfers();
    VLKTransactionMap restored = std::move(*m_batch);
    m_batch.reset();
    if (m_internals->batchIsForsaken) return;
    Internals::addNewer(std::move(m_changes), restored);
    m_changes = std::move(restored);
    if (!m_changes.empty()) m_internals->savePacing.changeFiled();
}

void VLKSyncController::launchChangesCommandWithJSON(std::optional<std::string> json) {
    setSyncStatusMessageWithFormat("Sending changes...");
    // The service must not know of changes that a power cut could still take from the store.
    if (auto durable = m_internals->coordinator->makeDurable(); !durable)
        return handleFailedChangesCommandWithError(durable.error());
    const std::string url = NS::format("%@/users/%@/transactions.json", m_serverUrl, m_userId);
    auto request = postRequestForURLWithJSON(url, json ? NS::Data(std::move(*json)) : NS::Data());
    const auto command = m_internals->commandFor(m_internals->authenticated(std::move(request)));
    command->setDelegate(this);
    const std::uint32_t task = m_internals->beginInterruptibleOperation(command);
    command->setFailureBlock([this](const NS::Error& error) { handleFailedChangesCommandWithError(error); });
    command->setFinallyBlock([this, task] { endBackgroundOperation(task); });
    command->setCompletionBlock(
        [this, batch = m_internals->batchNumber](const NS::Dictionary& answer) { m_internals->changesAnswered(answer, batch); });
    m_internals->commands.start(command);
    // While the service works.
    m_internals->onMainQueue([this] { m_ctx->forgetPreloaded(); });
}

void VLKSyncController::Internals::changesAnswered(const NS::Dictionary& answer, std::uint64_t batch) {
    // The blobs in the queue are those of the latest batch.
    if (batch != batchNumber || self.m_pendingBlobUploads.empty()) return takeAnswer(answer, batch);
    self.m_latestSyncResult = answer;
    heldBatch = batch;
    self.setTotalObjectsToUpload(static_cast<std::int64_t>(self.m_pendingBlobUploads.size()));
    self.processPendingBlobUploads();
}

void VLKSyncController::sendSchemaForContext(std::shared_ptr<NS::ManagedObjectContext> ctx) {
    const auto schema = VLKSchemaSerializer(std::move(ctx)).asJSON();
    auto request =
        postRequestForURLWithJSON(NS::format("%@/client_apps/%@/schema.json", m_serverUrl, m_appId), schema.value_or(""));
    m_internals->commands.start(std::make_shared<JSONWebCommand>(m_internals->authenticated(std::move(request))));
}

}  // namespace velkor
