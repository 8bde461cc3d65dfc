// Results: the service's answer to a changes request, fetched whole, written into the store, compared.
#include <algorithm>
#include <utility>

#include "Sync/VLKAnswer.h"
#include "Sync/VLKChangeWriteOperation.h"
#include "Sync/VLKSyncController+Internal.h"
#include "Sync/VLKSyncStateKeys.h"
#include "Sync/VLKSyncableObjectHasher.h"

namespace velkor {

namespace {

constexpr std::string_view transactionsKey = "new_xactions";
// Codes of the library's errors.
constexpr std::int64_t operationNotFinished = 500;
constexpr std::int64_t unreadableStore = 501;
/// The progress text stays, the percentage does not move.
constexpr float samePercentage = -1.0F;

std::string trimmed(std::string_view text) {
    constexpr std::string_view whiteSpace = " \t\n\v\f\r";
    const auto first = text.find_first_not_of(whiteSpace);
    if (first == std::string_view::npos) return {};
    return std::string(text.substr(first, text.find_last_not_of(whiteSpace) - first + 1));
}

}  // namespace

// --- Batched download ---

NS::Dictionary VLKSyncController::Internals::downloadFor(const NS::Dictionary& answer) {
    NS::Dictionary download = answer;
    download.set(transactionsKey, NS::Array());
    return download;
}

void VLKSyncController::downloadPage(std::int64_t page, NS::Dictionary download) {
    downloadPage(
        page, std::move(download), [this](const NS::Dictionary& complete) { handleCompletedChangesCommandWithResult(complete); },
        [this](const NS::Error& error) { handleFailedChangesCommandWithError(error); });
}

void VLKSyncController::downloadPage(std::int64_t page, NS::Dictionary download, DownloadBlock completion, FailureBlock failure) {
    logMessage(300, "Downloading page: %ld of transactions.", page);
    updateSyncStatusWithMessage(NS::format("Downloading page: %ld", page), samePercentage);
    const auto url = NS::format("%@/users/%@/batchdownload.json?page=%ld&identifier=%@", m_serverUrl, m_userId, page,
                                download["batched_download_identifier"]);
    const auto command = m_internals->commandFor(m_internals->authenticated(NS::MutableURLRequest(url)));
    const std::uint32_t task = m_internals->beginInterruptibleOperation(command);
    command->setFailureBlock([failure](const NS::Error& error) {
        if (failure) failure(error);
    });
    // Copies of the block share what has come so far, so that it grows without being copied.
    command->setCompletionBlock([this, page, sofar = std::make_shared<NS::Dictionary>(std::move(download)), completion,
                                 failure](const NS::Dictionary& answer) {
        NS::Dictionary whole = std::move(*sofar);
        const NS::Array transactions = VLKAnswer::array(answer, transactionsKey);
        if (transactions.empty()) {
            if (completion) completion(whole);
            return;
        }
        changeReport([](VLKCycleReport& report) { ++report.pages; });
        NS::Array all = VLKAnswer::array(whole, transactionsKey);
        whole.remove(transactionsKey);
        all.append(transactions);
        whole.set(transactionsKey, std::move(all));
        downloadPage(page + 1, std::move(whole), completion, failure);
    });
    command->setFinallyBlock([this, task] { endBackgroundOperation(task); });
    m_internals->commands.start(command);
}

void VLKSyncController::Internals::takeAnswer(const NS::Dictionary& answer, std::uint64_t batch) {
    if (!VLKAnswer::isBatched(answer)) return handleAnswer(answer, batch);
    self.downloadPage(
        1, downloadFor(answer), [this, batch](const NS::Dictionary& complete) { handleAnswer(complete, batch); },
        [this](const NS::Error& error) { self.handleFailedChangesCommandWithError(error); });
}

// --- Writing an answer ---

void VLKSyncController::handleCompletedChangesCommandWithResult(const NS::Dictionary& result) {
    m_internals->handleAnswer(result, m_internals->batchNumber);
}

void VLKSyncController::Internals::handleAnswer(const NS::Dictionary& answer, std::uint64_t batch) {
    self.updateSyncStatusWithMessage("Saving changes...", samePercentage);
    self.setSyncStatusMessageWithFormat("Saving changes...");
    logMessage(400, "Received data from server: %@", answer);
    const std::uint32_t task = self.beginBackgroundOpWithHandler([this] { self.m_saveQueue->cancelAllOperations(); });
    self.m_lastError.reset();
    takeRefreshInterval(answer);
    write(
        answer,
        [this](const VLKChangeWriteOperation& operation) {
            self.setTotalObjectsToDownload(operation.totalDownloadCount());
            self.setCurrentDownloadObjectNumber(self.totalObjectsToDownload() - operation.downloadCount());
        },
        [this, answer, batch, task] { answerWritten(answer, batch, task); },
        [this](const NS::Error& error) { self.handleFailedChangesCommandWithError(error); });
    recordSchemaSent();
}

void VLKSyncController::Internals::write(const NS::Dictionary& answer,
                                         std::function<void(const VLKChangeWriteOperation&)> progressed,
                                         std::function<void()> written, FailureBlock failed) {
    const auto operation =
        std::make_shared<VLKChangeWriteOperation>(answer, self.m_ctxCreator, self.m_serverUrl, NS::describe(self.m_emailAddress),
                                                  NS::describe(self.m_userPassword), NS::describe(self.m_appId));
    operation->setKeepsEveryChange(history != nullptr);
    const std::weak_ptr<VLKChangeWriteOperation> weak = operation;
    const auto token = operation->progress().addObserverForKeyPath(
        "downloadCount", &NS::OperationQueue::mainQueue(),
        [weak, watch = std::weak_ptr(alive), progressed = std::move(progressed)](NS::Observable&, const NS::Dictionary&) {
            const auto running = weak.lock();
            if (running && !watch.expired()) progressed(*running);
        });
    operation->setCompletionBlock([this, weak, token, written = std::move(written), failed = std::move(failed)] {
        const auto finished = weak.lock();
        if (!finished) return;
        finished->progress().removeObserverWithBlockToken(token);
        if (const auto error = failureOf(*finished)) {
            onMainQueue([failed, error = *error] { failed(error); });
            return;
        }
        onMainQueue([this, finished, written] {
            const auto received = static_cast<std::int64_t>(VLKAnswer::array(finished->resultDict(), transactionsKey).size());
            self.changeReport([&](VLKCycleReport& report) {
                report.received += received;
                report.blobsDown += finished->totalDownloadCount();
            });
            written();
        });
    });
    self.m_saveQueue->addOperation(operation);
}

std::optional<NS::Error> VLKSyncController::Internals::failureOf(const VLKChangeWriteOperation& operation) {
    if (operation.failed() && !operation.errors().empty()) return operation.errors().back();
    // What was not written must not be taken for written.
    if (operation.failed() || operation.isCancelled()) {
        return NS::Error::withDescription(NS::VelkorErrorDomain, operationNotFinished,
                                          "The changes of the server could not be written.");
    }
    return std::nullopt;
}

void VLKSyncController::Internals::recordSchemaSent() {
    if (!self.m_syncState) return self.saveSyncState();
    const NS::Value version = self.m_latestModelVersion ? NS::Value(*self.m_latestModelVersion) : NS::Value();
    const bool isNew = version && (*self.m_syncState)[SyncStateKey::schemaSent] != version;
    if (isNew) self.m_syncState->set(SyncStateKey::schemaSent, version);
    // While a save waits, only a new entry is worth writing the queue again.
    if (isNew || !savePacing.isWaiting()) self.saveSyncState();
}

void VLKSyncController::Internals::takeHighestTransaction(const NS::Dictionary& answer) {
    NS::Value highest = VLKAnswer::identifier(answer, SyncStateKey::highest);
    if (highest && self.m_syncState) self.m_syncState->set(SyncStateKey::highest, std::move(highest));
}

void VLKSyncController::Internals::answerWritten(const NS::Dictionary& answer, std::uint64_t batch, std::uint32_t taskId) {
    if (batch == batchNumber) {
        if (self.m_batch) self.changeReport([this](VLKCycleReport& report) { report.sent += transactionsInRequest; });
        transactionsInRequest = 0;
        // Freeing a large batch takes a while: after what is to be started now.
        if (self.m_batch) onMainQueue([spent = std::make_shared<VLKTransactionMap>(std::move(*self.m_batch))] {});
        self.m_batch.reset();
    }
    self.resetTimer();
    takeHighestTransaction(answer);
    saveAfterAnswer();
    if (self.dataToBeSent()) {
        onMainQueue([this] { self.sendUpdatesWithoutLock(); });
        self.endBackgroundOperation(taskId);
        return;
    }
    const NS::Value& hash = answer["SYNC_HASH"];
    if (hash == NS::Value("OUT_OF_SYNC")) {
        logMessage(100, "Server says we're out of sync!!");
        self.sendFullObjectListing();
    } else if (hash == NS::Value("IN_SYNC")) {
        endInAgreement();
    } else {
        self.m_hashingQueue->addOperation(
            [this, remote = VLKAnswer::text(answer, "SYNC_HASH").value_or("")] { compareHash(remote); });
    }
    self.endBackgroundOperation(taskId);
}

void VLKSyncController::Internals::endInAgreement() {
    self.syncEnded();
    self.setLastSync(NS::Date::now());
}

/// On the hashing queue.
void VLKSyncController::Internals::compareHash(const std::string& remoteHash) const {
    const VLKSyncableObjectHasher hasher(self.m_ctxCreator(), self);
    const auto hash = hasher.hashOfKnownShareableObjects();
    if (!hash) return endUnableToCompare();
    const std::string local = trimmed(*hash);
    const std::string remote = trimmed(remoteHash);
    logMessage(300, "Local hash: %@", local);
    logMessage(300, "Remote hash: %@", remote);
    if (self.areWeLoopingOnKnownObjects()) {
        logMessage(100, "Local hash: %@", local);
        logMessage(100, "Remote hash: %@", remote);
        logMessage(100, "Seems like we're looping on known objects. Here's what I think server should have:");
        logMessage(100, "%@", hasher.knownShareableObjectsForHash());
    }
    if (local == remote) {
        onMainQueue([&controller = self] { controller.m_internals->endInAgreement(); });
    } else {
        self.sendFullObjectListing();
    }
}

/// An unreadable store is not taken for an empty one.
void VLKSyncController::Internals::endUnableToCompare() const {
    onMainQueue([&controller = self] {
        controller.m_lastError =
            NS::Error::withDescription(NS::VelkorErrorDomain, unreadableStore, "The store's objects could not be listed.");
        controller.syncEnded();
    });
}

// --- Failure ---

void VLKSyncController::handleFailedChangesCommandWithError(const NS::Error& error) {
    logMessage(100, "VLK Error: %@ while sending changes.", error);
    m_latestSyncResult.reset();  // the answer to a request that failed is not taken in
    const bool isRollingBack = m_internals->reportedFailure.has_value();
    m_internals->reportedFailure = error;
    // A roll-back on its way serves later reports too: a second one could overtake the cycle's end.
    if (isRollingBack) return;
    rollbackWithCompletionHandler([this](bool, const std::optional<NS::Error>&) { m_internals->endRolledBack(); });
}

void VLKSyncController::Internals::endRolledBack() {
    self.m_lastError = std::exchange(reportedFailure, std::nullopt);
    self.resetBatch();
    self.resetTimer();
    dropBlobTransfers();
    self.save();
    self.syncEnded();
}

}  // namespace velkor
