// What the sync controller's source files share and nobody else sees.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "PelmoLib/JSONWebCommand.h"
#include "PelmoLib/NSMutableURLRequest+Posts.h"
#include "PelmoLib/encodings/VLKLog.h"
#include "Sync/VLKCapturedSaves.h"
#include "Sync/VLKHistoryRecovery.h"
#include "Sync/VLKLockSequence.h"
#include "Sync/VLKMainThreadQuestions.h"
#include "Sync/VLKRunningCommands.h"
#include "Sync/VLKSavePacing.h"
#include "Sync/VLKStateStore.h"
#include "Sync/VLKSyncController.h"
#include "Sync/VLKSyncableKind.h"
#include "Sync/VLKTransaction.h"
#include "objectstore/ManagedObjectContext.h"

namespace velkor {

class VLKBlobDeletion;
class VLKChangeWriteOperation;
class VLKPresentObjects;

/// The version of the protocol that the lock's URL and the requests name.
inline constexpr std::string_view VLKProtocolVersion = "1.5";

template <class... Args>
void logMessage(std::int32_t level, std::string_view format, const Args&... args) {
    VLKLog::sharedInstance().logMessageAtLevel(level, format, args...);
}

/// A transaction that replaces another goes on standing for its row of the store's history.
inline void keepHistoryRow(VLKTransaction& newer, const VLKTransaction& older) {
    if (older.historySequence() > newer.historySequence()) newer.setHistorySequence(older.historySequence());
}

/// The controller's working parts. They belong to the main thread, except those that say otherwise themselves.
struct VLKSyncController::Internals {
    explicit Internals(VLKSyncController& controller) noexcept : self(controller) {}

    VLKSyncController& self;
    /// Gone once teardown has begun: what is still queued then does nothing.
    std::shared_ptr<const bool> alive = std::make_shared<const bool>(true);
    VLKMainThreadQuestions questions;
    const std::shared_ptr<VLKCapturedSaves> capturedSaves = std::make_shared<VLKCapturedSaves>();
    VLKRunningCommands commands;
    VLKLockSequence locks{commands};
    VLKStateStore stateStore;
    /// Where the sync state was last loaded from; none: user defaults.
    Text loadedPath;
    /// What was taken over from older versions and has not been saved yet.
    std::optional<NS::Dictionary> migratedState;
    VLKSavePacing savePacing;
    std::unique_ptr<VLKHistoryRecovery> history;  // only while every change is kept
    std::function<bool()> cycleGuard;
    /// Names the latest batch: an answer acknowledges the batch of its own request, not one that has left since.
    std::uint64_t batchNumber = 0;
    /// Tells the answers to requests of a user who has logged out since.
    std::uint64_t logouts = 0;
    /// The batch's user has logged out since: nothing of it comes back among the pending changes of the next one.
    bool batchIsForsaken = false;
    /// Transactions of the batch that have a place in the request.
    std::int64_t transactionsInRequest = 0;
    /// Names the batch of the answer that is held back while blobs upload.
    std::uint64_t heldBatch = 0;
    std::weak_ptr<VLKS3Uploader> runningTransfer;
    std::vector<std::weak_ptr<VLKBlobDeletion>> blobDeletions;
    /// The latest failure of a request, while the service is being asked to roll it back.
    std::optional<NS::Error> reportedFailure;
    std::shared_ptr<NS::PersistentStoreCoordinator> coordinator;  // fixed at creation
    NS::NotificationCenter::Token didSaveObserver;

    /// Runs the block on the main queue, after the current step has returned. Any thread.
    void onMainQueue(std::function<void()> block) const;
    void postOnMainQueue(std::string_view notification) const;

    // Requests.
    NS::MutableURLRequest timed(NS::MutableURLRequest request) const;
    /// With the time-out and the user's credentials.
    NS::MutableURLRequest authenticated(NS::MutableURLRequest request) const;
    static std::shared_ptr<JSONWebCommand> commandFor(NS::MutableURLRequest request);
    /// A bracket whose handler cancels the command and keeps what it carried.
    std::uint32_t beginInterruptibleOperation(const std::shared_ptr<JSONWebCommand>& command) const;
    void runAccountCommand(NS::MutableURLRequest request, VLKResultCallback callback);

    // Creation.
    void observeSaves();
    void observeProgress();
    void logSyncableEntities() const;

    // State.
    void takeInstanceId();
    void logSavePath() const;
    /// Writes the sync state; returns whether it is kept.
    bool keepState();
    void archivePendingChanges();
    /// For good: a restart does not bring them back either.
    void forgetPendingChanges();
    void keepStateAndHistoryToken();
    void saveAfterAnswer();
    void restorePendingChanges(const NS::Data& archive);
    /// Adds the newer transactions, which win.
    static void addNewer(VLKTransactionMap newer, VLKTransactionMap& transactions);
    std::int64_t historyToken() const;
    void fileFromHistory();
    std::optional<std::int64_t> oldestPendingHistoryRow() const;

    // Capture.
    /// Files the transaction in `changes` under its guid.
    void fileTransaction(std::shared_ptr<VLKTransaction> transaction);
    bool isContextOfRunningWrite(const NS::ManagedObjectContext* context) const;
    void handleCapturedSaves();
    void fileCapturedSave(const VLKCapturedSave& save, const VLKPresentObjects& present);

    void recordGenericValue(const std::string& keyPath, const NS::Observable& object, const std::string& genericId);

    // Batching.
    std::optional<std::string> requestEnvelope();
    void dropBadTransaction(VLKTransactionMap& batch, const std::string& guid);
    void changesAnswered(const NS::Dictionary& answer, std::uint64_t batch);

    // Blobs.
    void blobTransferCompleted(const std::shared_ptr<VLKS3Uploader>& transfer, bool isUpload);
    void blobTransferFailed(const std::shared_ptr<VLKS3Uploader>& transfer, const NS::Error& error);
    /// Drops the transfers of one object, or all of them; what a dropped one still brings is ignored.
    void dropBlobTransfersOf(std::string_view guid);
    void dropBlobTransfers();
    void cancelBlobDeletions();

    // Cycle.
    void lockGranted(const NS::Dictionary& answer);
    /// The lock of a user who has logged out since. `turn`: the locks asked for when it was.
    void lockForsaken(std::uint64_t turn, const std::function<void(const NS::Error&)>& failureHandler);
    void lockRefused(const NS::Error& error, const std::function<void(const NS::Error&)>& failureHandler);
    /// `turn`: the locks asked for when the unlock was.
    void unlockAnswered(std::uint64_t turn);
    void failCycle(const NS::Error& error);
    void runContinuation();
    void tellLogin(bool success, const std::optional<NS::Error>& error);
    bool takeRefreshInterval(const NS::Dictionary& answer);

    // Results and known objects.
    /// The answer as the beginning of a batched download: without transactions of its own.
    static NS::Dictionary downloadFor(const NS::Dictionary& answer);
    /// Writes the answer into the store, then calls `written` or `failed` on the main queue.
    void write(const NS::Dictionary& answer, std::function<void(const VLKChangeWriteOperation&)> progressed,
               std::function<void()> written, FailureBlock failed);
    static std::optional<NS::Error> failureOf(const VLKChangeWriteOperation& operation);
    void recordSchemaSent();
    void takeHighestTransaction(const NS::Dictionary& answer);
    /// Fetches the answer's pages, if it has any, and handles it.
    void takeAnswer(const NS::Dictionary& answer, std::uint64_t batch);
    void handleAnswer(const NS::Dictionary& answer, std::uint64_t batch);
    void answerWritten(const NS::Dictionary& answer, std::uint64_t batch, std::uint32_t taskId);
    void compareHash(const std::string& remoteHash) const;
    void endInAgreement();
    void endUnableToCompare() const;
    void endRolledBack();
    std::optional<std::string> listingBody(const NS::Array& guids) const;
    void listingAnswered(const NS::Dictionary& answer, std::uint32_t task);
    void listingWritten(const NS::Dictionary& answer);
};

}  // namespace velkor
