#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "PelmoLib/JSONWebCommand.h"
#include "Sync/VLKSyncProperties.h"
#include "objectstore/ObjectSet.h"
#include "platform/base/Export.h"
#include "platform/base/Format.h"

namespace velkor {

namespace NS {
class EntityDescription;
class ManagedObject;
class ObjectClass;
}  // namespace NS

class VLKS3Deleter;

/// Posted from the main queue when a cycle starts and when it has ended; the sender is the controller.
inline constexpr std::string_view VLKStartingSyncNotification = "STARTING_SYNC";
inline constexpr std::string_view VLKEndedSyncNotification = "ENDED_SYNC";

/// What is remembered of a deleted object: it can no longer be fetched.
struct VLKDeleteRecord {
    std::string className;
    std::string guid;
};

/// Keeps the host's store in step with the sync service: it turns saves into transactions and, from its timer or on call, runs
/// sync cycles (lock, send, receive, compare, unlock). One a process, created on the main thread, for the life of the process;
/// torn down when the process exits in order. Everything is called on the main thread, whose run loop the host runs, unless a
/// line says otherwise; nothing blocks on the network. Problems of a cycle end in the log and, unless the exchange of listings
/// failed, in `lastError`; nothing is raised to the host.
class VELKOR_EXPORT VLKSyncController : public VLKSyncProperties, public JSONWebCommandDelegate {
public:
    // --- Creation ---
    /// Makes the controller, whose own context is the first that the creator makes: that one must not be null. A second call
    /// raises "VLKSyncControllerAlreadyInitialized". Never null; the process owns it.
    static VLKSyncController* globalInstanceWithServerURL(std::string serverURL, VLKContextCreator contextCreator);
    /// Fails an assertion before the controller is made.
    static VLKSyncController* globalInstance();
    std::string_view className() const noexcept override { return "VLKSyncController"; }

    // --- State: what survives a restart ---
    /// Loads the sync state from `stateSavePath` (else user defaults); changes captured so far win over the saved ones.
    void load();
    /// Stores the pending changes, `lastSync` and `instanceId` in the sync state and writes it. Write failures are not reported.
    void save();
    /// The two without the pending changes: `syncState` as it is kept, and back. A file that cannot be read makes it null.
    void loadSyncState();
    void saveSyncState();
    /// Takes over the user-defaults keys of older versions; false when there are none.
    bool loadLegacyDefaults();
    /// With true (false at creation) no change is lost to a kill at any moment: the store keeps persistent history from now on,
    /// and `load` and every cycle recover from it what `save` had not kept. Set before `load`, and at every start: the store's
    /// file goes on keeping history, which only a controller that has this set purges. A store that cannot keep history leaves it
    /// false, with a line in the log.
    bool keepsEveryChange() const noexcept;
    void setKeepsEveryChange(bool keeps);

    // --- Timer ---
    /// Lets the timer start cycles, every `refreshInterval` from now on.
    void start();
    /// Stops the timer; a cycle that is running goes on.
    void cancel();
    /// Arms the timer anew with `refreshInterval`, unless it sleeps.
    void resetTimer();
    /// The same with another interval, at least a second and at most a year.
    void resetTimerWithInterval(double seconds);
    /// The timer's action: `sendUpdates`, if the cycle guard allows it.
    void autoSendUpdatesIfNotIdle(NS::Timer& timer);
    /// Asked before each automatic cycle, which is skipped when it answers false. None: every tick starts one.
    void setCycleGuard(std::function<bool()> guard);
    /// No user input for more than ten minutes. Offered to the host.
    bool appIsIdle() const;

    // --- Logging, observing, status ---
    std::int32_t logLevel() const noexcept;
    void setLogLevel(std::int32_t level);
    /// Saves made from now on are captured; so it is at creation.
    void enableObserving();
    /// Saves made from now on are never captured, not even later.
    void disableObserving();
    template <class... Args>
    void setSyncStatusMessageWithFormat(std::string_view format, const Args&... args) {
        setCurrentOperation(NS::format(format, args...));
    }
    /// A negative percentage changes the text only.
    void updateSyncStatusWithMessage(std::string message, float pecentage);
    /// Brackets of long commands for platforms that suspend programs; empty here.
    std::uint32_t beginBackgroundOpWithHandler(std::function<void()> handler);
    void endBackgroundOperation(std::uint32_t identifier);

    // --- Capture: saves become transactions ---
    /// The observer of did-save notifications; on the saving thread. Raises for a syncable object without a GUID.
    void dataChanged(const NS::Notification& notification);
    /// Its class takes part in sync, and neither `expired` nor else `doNotSynchronize` excludes it.
    bool objectIsSyncable(const NS::ManagedObject& object) const;
    /// False for null.
    bool classIsSyncable(const NS::ObjectClass* objectClass) const noexcept;
    /// In the model's order; any thread.
    std::vector<const NS::EntityDescription*> syncableEntityTypesInCtx(const NS::ManagedObjectContext* ctx) const;
    /// Each GUID once. Raises the invalid-argument exception for a syncable object without one.
    NS::Array guidsForObjects(const NS::ObjectSet& objects) const;
    /// Files a pending change for each syncable object, in place of an earlier one of its GUID. One without a GUID is logged.
    void addChangesOfType(std::string_view type, const NS::ObjectSet& objects);
    /// The same for objects that are gone.
    void addDeletesForObjectsWithGuids(const std::vector<VLKDeleteRecord>& records);
    /// The entity's objects with those GUIDs, of the given context; empty also when the fetch fails.
    NS::ObjectSet objectsOfType(const NS::EntityDescription& entity, const NS::Array& guids, NS::ManagedObjectContext& ctx) const;
    /// The syncable objects with those GUIDs, without those that are expired or opted out. What is not found is logged.
    NS::ObjectSet objectsForGuids(const NS::Array& guids, NS::ManagedObjectContext& ctx) const;
    /// Those of the controller's own context.
    NS::ObjectSet objectsForGuids(const NS::Array& guids) const;
    /// The first one in the model's order of entities, excluded or not; null when there is none or the fetch fails.
    std::shared_ptr<NS::ManagedObject> objectForGuid(std::string_view guid, NS::ManagedObjectContext& ctx) const;
    /// Files inserts for the objects with the GUIDs of an answer.
    void createTransactionsForObjectsFromJSON(const NS::Array& guids);

    // --- Batching: pending changes become a request ---
    /// Takes the next chunk and gives the request's JSON text; none when it cannot be written. Raises when the store cannot be
    /// read or a value that every request needs is missing; `resetBatch` then puts the chunk back.
    std::optional<std::string> batchCurrentChanges();
    /// Takes the chunk, brings its objects up to date and queues their blobs. Raises when the store cannot be read.
    void readyCurrentChunk();
    /// Drops, for good, changes of objects that are gone; deletions and generic values stay.
    void removeBadTransactionsFromBatch(VLKTransactionMap& batch);
    bool dataToBeSent() const noexcept { return !changes().empty(); }
    /// Forgets the pending changes.
    void dropPendingTransactions();
    /// Puts the chunk in flight back among the pending changes; newer ones win. Blob transfers that still wait for its answer are
    /// dropped: they are queued anew with it.
    void resetBatch();
    /// Sends the request; with none an empty one.
    void launchChangesCommandWithJSON(std::optional<std::string> json);
    /// Posts the schema of the context's model to the service and forgets about it.
    void sendSchemaForContext(std::shared_ptr<NS::ManagedObjectContext> ctx);

    // --- Cycle: lock, send, unlock ---
    /// Starts a cycle unless one is running; the sender is ignored.
    void sendUpdates(const NS::Object* sender = nullptr);
    /// Asks for the user's lock; the failure handler hears of refused credentials only, and of a logout meanwhile. Both may be
    /// empty.
    void lockWithContinuation(std::function<void()> continuation, std::function<void(const NS::Error&)> failureHandler);
    void lockWithContinuation(std::function<void()> continuation);
    /// Sends the next chunk under the lock already held. Does nothing while a chunk or a listing is out or without credentials.
    void sendUpdatesWithoutLock();
    /// Proves the credentials, then sends the request.
    void launchVerifyCommandForJSON(std::optional<std::string> json, const Text& username, const Text& password);
    /// A command, not started, that verifies the credentials.
    std::shared_ptr<JSONWebCommand> verificationCommandForUsername(const Text& username, const Text& password);
    /// Starts a cycle, or joins the running one, and runs the continuation on the main queue when it ends. A second call before
    /// that replaces the continuation: the first one is not run.
    void forceSyncWithContinuation(std::function<void()> continuation);
    void forceSync();
    /// Gives the lock back; not repeated when that fails.
    void unlock();
    /// Ends the cycle: unlocks, announces the end, runs the continuation.
    void syncEnded();

    // --- Results: the service's answers ---
    using DownloadBlock = std::function<void(NS::Dictionary download)>;
    using FailureBlock = std::function<void(const NS::Error& error)>;
    /// Takes in a complete answer to a changes request.
    void handleCompletedChangesCommandWithResult(const NS::Dictionary& result);
    /// Has the service roll back, then ends the cycle; the batch goes back among the pending changes.
    void handleFailedChangesCommandWithError(const NS::Error& error);
    /// Fetches the page and all that follow, gathering their transactions in `download`.
    void downloadPage(std::int64_t page, NS::Dictionary download);
    /// The same with blocks of one's own, on the main thread; both may be empty.
    void downloadPage(std::int64_t page, NS::Dictionary download, DownloadBlock completion, FailureBlock failure);

    // --- Known objects: comparing notes with the service ---
    /// Gathers the GUIDs in the background and sends them. Any thread.
    void sendFullObjectListing();
    /// Sends these GUIDs as all that are known.
    void sendObjectListing(const NS::Array& guids);
    /// Takes in the complete answer to a listing.
    void handleCompletedKnownObjectsCommandWithResult(const NS::Dictionary& result);
    /// Ends the cycle.
    void handleFailedKnownObjectsCommandWithError(const NS::Error& error, std::uint32_t taskId);
    /// Remembers that a listing is sent now.
    void storeKnownObjectsTime();
    /// Three listings within twenty minutes. Any thread; another than the main one waits until the main run loop turns, so the
    /// main thread must not wait for it.
    bool areWeLoopingOnKnownObjects();

    // --- Blobs: binary attributes travel beside the transactions ---
    /// Queues a transfer for each blob attribute of the transaction's object: an upload of its value, or a deletion.
    void addBlobUploadOperationForTransaction(VLKTransaction& transaction);
    /// Starts the next transfer; when none is left, takes in the answer that was held back.
    void processPendingBlobUploads();
    /// The names of the blob attributes (an array) of all syncable objects, by GUID.
    NS::Dictionary blobNamesForSyncableObjects() const;
    /// Deletes every blob of every syncable object from the service's blob store, one at a time, from the end of the list that it
    /// returns; the first failure ends it. The callback may be empty.
    std::vector<std::shared_ptr<VLKS3Deleter>> deleteAllBlobsFromServerWithCallback(VLKResultCallback callback);

    // --- Generic values: values at key paths of observed objects outside the store ---
    /// Every change of the value from now on becomes a pending change, once a user is known. The object is not null and is kept;
    /// the value may change on any thread.
    void registerObservationOfKeyPath(std::string_view keyPath, std::shared_ptr<NS::Observable> object,
                                      std::string_view genericObjectId);
    /// What is pending of the value stays so.
    void unregisterObservationOfKeyPath(std::string_view keyPath, std::string_view genericObjectId);
    /// Files the value's present state as a pending change.
    void addGenericObjectTransactionForKeyPath(std::string_view keyPath, const NS::Observable& object,
                                               std::string_view genericId);
    /// Files those of the registered values whose GUIDs are named.
    void addTransactionsForGenericObjectsInSet(const NS::Array& guids);
    /// Null when nothing is registered under the key.
    std::shared_ptr<NS::Observable> observedObjectWithGenericObjectIdAndKeyPath(std::string_view genericObjectKey) const;
    /// What `observedObjectWithGenericObjectIdAndKeyPath` takes.
    std::string genericObjectKeyForKeyPath(std::string_view keyPath, std::string_view genericObjectId) const;
    /// It changes with the user who is logged in.
    std::string guidForGenericObjectKeyPath(std::string_view keyPath, std::string_view genericObjectId) const;
    /// GUIDs of the registered generic values that are not nil. Any thread; another than the main one waits until the main run
    /// loop turns, so the main thread must not wait for it. Empty when the controller is being torn down or a value raises.
    std::vector<std::string> guidsOfGenericValues();

    // --- Account: each a request of its own; callbacks may be empty ---
    /// Keeps the credentials when the service has taken them; a login follows.
    void signupWithEmailAddress(std::string emailAddress, std::string password, VLKResultCallback callback);
    /// Keeps the credentials and proves them by a lock and unlock. A refused login is reported twice. Success is reported while
    /// the unlock is under way: until `cycleReport().unlockAnswered` other clients find the lock taken, and a forced sync waits
    /// for the timer's next cycle.
    void loginWithEmailAddress(std::string emailAddress, std::string password, VLKResultCallback callback);
    /// A lock has been granted since the last logout.
    bool loggedIn() const noexcept { return !userId().isNil(); }
    void logout();
    /// Discards pending changes and credentials at once and for good, whatever the service answers.
    void logoutWithCallback(VLKResultCallback callback);
    /// What this application keeps of the user; nothing in the store changes.
    void deleteAllDataFromServerWithCallback(VLKResultCallback callback);
    /// On success the host sets `userPassword`.
    void changePasswordFrom(const std::string& oldPassword, const std::string& newPassword, VLKResultCallback callback);
    /// The address goes into the URL as it is.
    void sendPasswordResetForEmail(const std::string& emailAddress, VLKResultCallback callback);
    /// The user's account; no logout comes with it.
    void deleteUserWithCallback(VLKResultCallback callback);
    /// Has the service take back what this client's latest changes request brought.
    void rollbackWithCompletionHandler(VLKResultCallback callback);
    /// Tells the service about this client: what `getRegisteredClients` answers.
    void sendClientInfo(const NS::Dictionary& info, VLKResultCallback callback);
    /// The answer's "registered_clients", or nil and the error.
    void getRegisteredClients(std::function<void(const NS::Value& clients, const std::optional<NS::Error>& error)> callback);
    /// Do nothing: the commands' own blocks do the work.
    void webCommandCompletedWithResult(JSONWebCommand& command, const NS::Dictionary& result) override;
    void webCommandFailedWithError(JSONWebCommand& command, const NS::Error& error) override;

protected:
    VLKSyncController(std::string serverURL, VLKContextCreator contextCreator);
    ~VLKSyncController() override;

private:
    struct Internals;
    std::unique_ptr<Internals> m_internals;
};

}  // namespace velkor
