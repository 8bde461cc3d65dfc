#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "PelmoLib/VLKMocCreator.h"
#include "Sync/VLKCycleReport.h"
#include "Sync/VLKTransactionMap.h"
#include "platform/base/Array.h"
#include "platform/base/Date.h"
#include "platform/base/Dictionary.h"
#include "platform/base/Error.h"
#include "platform/base/Export.h"
#include "platform/base/OrderedMap.h"
#include "platform/base/Value.h"
#include "platform/concurrency/NotificationCenter.h"
#include "platform/concurrency/OperationQueue.h"
#include "platform/concurrency/Timer.h"
#include "platform/observation/Observable.h"

namespace velkor {

class VLKGenericObjectInfo;
class VLKS3Uploader;

/// Outcome of an account command: (true, none) or (false, the error).
using VLKResultCallback = std::function<void(bool success, const std::optional<NS::Error>& error)>;

/// The sync controller's properties. Read and written on the main thread, unless a line says otherwise. Those that say "observed"
/// can be followed with addObserverForKeyPath under their own name; all values of a plain kind can be read with valueForKey.
class VELKOR_EXPORT VLKSyncProperties : public NS::Observable {
public:
    using Text = std::optional<std::string>;

    // --- Identity and service ---
    /// Application identifier sent to the service; the main bundle's identifier unless the host sets another.
    const Text& appId() const noexcept { return m_appId; }
    void setAppId(Text appId) { m_appId = std::move(appId); }
    /// Sent with every change request; none until set.
    const Text& apiKey() const noexcept { return m_apiKey; }
    void setApiKey(Text key) { m_apiKey = std::move(key); }
    /// Base URL of the service, without a trailing slash.
    const std::string& serverUrl() const noexcept { return m_serverUrl; }
    void setServerUrl(std::string url) { m_serverUrl = std::move(url); }
    /// Identity of this installation, a UUID that the sync state keeps.
    const Text& instanceId() const noexcept { return m_instanceId; }
    void setInstanceId(Text instanceId) { m_instanceId = std::move(instanceId); }
    /// Version of the data model; a new one makes the next request carry the schema. "1.0" at creation.
    const Text& latestModelVersion() const noexcept { return m_latestModelVersion; }
    void setLatestModelVersion(Text version) { m_latestModelVersion = std::move(version); }

    // --- User (all observed) ---
    /// The service's id of the user, as received; nil when nobody is logged in.
    const NS::Value& userId() const noexcept { return m_userId; }
    void setUserId(NS::Value userId) { change("userId", m_userId, std::move(userId)); }
    const Text& emailAddress() const noexcept { return m_emailAddress; }
    void setEmailAddress(Text address) { change("emailAddress", m_emailAddress, std::move(address)); }
    const Text& userPassword() const noexcept { return m_userPassword; }
    void setUserPassword(Text password) { change("userPassword", m_userPassword, std::move(password)); }
    /// Callback of the login in progress.
    const VLKResultCallback& loginCallback() const noexcept { return m_loginCallback; }
    void setLoginCallback(VLKResultCallback callback) { m_loginCallback = std::move(callback); }
    /// Tokens of observations that the host has added to this object; ended at teardown.
    const Text& emailObservationToken() const noexcept { return m_emailObservationToken; }
    void setEmailObservationToken(Text token) { m_emailObservationToken = std::move(token); }
    const Text& passwordObservationToken() const noexcept { return m_passwordObservationToken; }
    void setPasswordObservationToken(Text token) { m_passwordObservationToken = std::move(token); }

    // --- Store and queues ---
    /// Makes a context for each answer and comparison, on queue threads. To be replaced before the first save and cycle only.
    const VLKContextCreator& ctxCreator() const noexcept { return m_ctxCreator; }
    void setCtxCreator(VLKContextCreator creator) { m_ctxCreator = std::move(creator); }
    /// The controller's own context. To be replaced before the first save and cycle only.
    const std::shared_ptr<NS::ManagedObjectContext>& ctx() const noexcept { return m_ctx; }
    void setCtx(std::shared_ptr<NS::ManagedObjectContext> ctx) { m_ctx = std::move(ctx); }
    /// Writes answers into the store, one at a time.
    NS::OperationQueue& saveQueue() const noexcept { return *m_saveQueue; }
    /// Gathers the GUIDs of full listings.
    NS::OperationQueue& readQueue() const noexcept { return *m_readQueue; }
    NS::OperationQueue& hashingQueue() const noexcept { return *m_hashingQueue; }

    // --- Pending changes ---
    VLKTransactionMap& changes() noexcept { return m_changes; }
    const VLKTransactionMap& changes() const noexcept { return m_changes; }
    void setChanges(VLKTransactionMap changes) { m_changes = std::move(changes); }
    /// The chunk in flight; null when there is none.
    VLKTransactionMap* batch() noexcept { return m_batch ? &*m_batch : nullptr; }
    const VLKTransactionMap* batch() const noexcept { return m_batch ? &*m_batch : nullptr; }
    void setBatch(std::optional<VLKTransactionMap> batch) { m_batch = std::move(batch); }
    /// Limit each request to 100 transactions; false at creation.
    bool enableChunking() const noexcept { return m_enableChunking; }
    void setEnableChunking(bool chunking) noexcept { m_enableChunking = chunking; }
    /// Saves in the store become transactions. Read on any thread.
    bool observing() const noexcept { return m_observing; }

    // --- Timer ---
    const std::shared_ptr<NS::Timer>& pollTimer() const noexcept { return m_pollTimer; }
    void setPollTimer(std::shared_ptr<NS::Timer> timer) { m_pollTimer = std::move(timer); }
    /// Seconds between automatic cycles; 60 at creation. A timer never ticks more often than once a second.
    double refreshInterval() const noexcept { return m_refreshInterval; }
    void setRefreshInterval(double seconds) noexcept { m_refreshInterval = seconds; }
    /// Time-out of every request, in seconds; 60 at creation.
    double requestTimeout() const noexcept { return m_requestTimeout; }
    void setRequestTimeout(double seconds) noexcept { m_requestTimeout = seconds; }
    /// The timer must not run; true at creation.
    bool wantsToSleep() const noexcept { return m_wantsToSleep; }
    void setWantsToSleep(bool sleep) noexcept { m_wantsToSleep = sleep; }

    // --- The cycle (observed: syncInProgress, lastSync, cycleReport) ---
    bool syncInProgress() const noexcept { return m_syncInProgress; }
    void setSyncInProgress(bool running) { change("syncInProgress", m_syncInProgress, running); }
    /// Run once when the current or next cycle ends.
    const std::function<void()>& continuation() const noexcept { return m_continuation; }
    void setContinuation(std::function<void()> continuation) { m_continuation = std::move(continuation); }
    const std::optional<NS::Error>& lastError() const noexcept { return m_lastError; }
    void setLastError(std::optional<NS::Error> error) { m_lastError = std::move(error); }
    /// When the last completed cycle ended. It is set after that cycle's `save`: a host that wants it kept saves at "ENDED_SYNC".
    const std::optional<NS::Date>& lastSync() const noexcept { return m_lastSync; }
    void setLastSync(std::optional<NS::Date> date) { change("lastSync", m_lastSync, date); }
    const VLKCycleReport& cycleReport() const noexcept { return m_cycleReport; }
    /// An answer held back while blobs upload; nil: none.
    const std::optional<NS::Dictionary>& latestSyncResult() const noexcept { return m_latestSyncResult; }
    void setLatestSyncResult(std::optional<NS::Dictionary> result) { m_latestSyncResult = std::move(result); }

    // --- Known objects ---
    bool processingObjectListing() const noexcept { return m_processingObjectListing; }
    void setProcessingObjectListing(bool processing) noexcept { m_processingObjectListing = processing; }
    /// Times of the latest listings, oldest first, at most three.
    NS::Array& lastKnownObjectTimes() noexcept { return m_lastKnownObjectTimes; }
    NS::Array& lastKnownObjects() noexcept { return m_lastKnownObjects; }
    std::int32_t knownObjectsCallCount() const noexcept { return m_knownObjectsCallCount; }
    void setKnownObjectsCallCount(std::int32_t count) noexcept { m_knownObjectsCallCount = count; }

    // --- Progress, for the host to show (all observed) ---
    /// Status text of the current step.
    const std::string& currentOperation() const noexcept { return m_currentOperation; }
    void setCurrentOperation(std::string text) { change("currentOperation", m_currentOperation, std::move(text)); }
    /// 0 to 1.
    float percentSyncComplete() const noexcept { return m_percentSyncComplete; }
    void setPercentSyncComplete(float fraction) { change("percentSyncComplete", m_percentSyncComplete, fraction); }
    std::int64_t totalObjectsToUpload() const noexcept { return m_totalObjectsToUpload; }
    void setTotalObjectsToUpload(std::int64_t count) { change("totalObjectsToUpload", m_totalObjectsToUpload, count); }
    std::int64_t currentUploadObjectNumber() const noexcept { return m_currentUploadObjectNumber; }
    void setCurrentUploadObjectNumber(std::int64_t number) {
        change("currentUploadObjectNumber", m_currentUploadObjectNumber, number);
    }
    std::int64_t totalObjectsToDownload() const noexcept { return m_totalObjectsToDownload; }
    void setTotalObjectsToDownload(std::int64_t count) { change("totalObjectsToDownload", m_totalObjectsToDownload, count); }
    std::int64_t currentDownloadObjectNumber() const noexcept { return m_currentDownloadObjectNumber; }
    void setCurrentDownloadObjectNumber(std::int64_t number) {
        change("currentDownloadObjectNumber", m_currentDownloadObjectNumber, number);
    }
    const NS::NotificationCenter::Token& uploadProgressObserver() const noexcept { return m_uploadProgressObserver; }
    const NS::NotificationCenter::Token& downloadProgressObserver() const noexcept { return m_downloadProgressObserver; }

    // --- Blob uploads ---
    /// Transfers not yet finished, uploads and deletions; the first one is running once the service has answered.
    std::deque<std::shared_ptr<VLKS3Uploader>>& pendingBlobUploads() noexcept { return m_pendingBlobUploads; }
    /// Failures since the last transfer that succeeded.
    std::int64_t failedBlobUploadCount() const noexcept { return m_failedBlobUploadCount; }
    void setFailedBlobUploadCount(std::int64_t count) noexcept { m_failedBlobUploadCount = count; }

    // --- Generic values: by generic object key, by the same key, by generic GUID ---
    NS::OrderedMap<std::shared_ptr<NS::Observable>>& observedGenericObjects() noexcept { return m_observedGenericObjects; }
    NS::OrderedMap<std::string>& genericObservationTokens() noexcept { return m_genericObservationTokens; }
    NS::OrderedMap<std::shared_ptr<VLKGenericObjectInfo>>& genericObjectGuids() noexcept { return m_genericObjectGuids; }

    // --- Persisted state ---
    /// The sync state; null when the state file could not be read: nothing is then found in it and what is written is lost.
    NS::Dictionary* syncState() noexcept { return m_syncState ? &*m_syncState : nullptr; }
    void setSyncState(std::optional<NS::Dictionary> state) { m_syncState = std::move(state); }
    /// The state file; none: the state is kept in user defaults.
    const Text& stateSavePath() const noexcept { return m_stateSavePath; }
    void setStateSavePath(Text path) { m_stateSavePath = std::move(path); }

    // --- Kept for the host; the library neither sets nor reads them ---
    bool schemaSent() const noexcept { return m_schemaSent; }
    void setSchemaSent(bool sent) noexcept { m_schemaSent = sent; }
    bool userLocked() const noexcept { return m_userLocked; }
    void setUserLocked(bool locked) noexcept { m_userLocked = locked; }
    const std::optional<NS::Date>& lastAutoSend() const noexcept { return m_lastAutoSend; }
    void setLastAutoSend(std::optional<NS::Date> date) { m_lastAutoSend = date; }

    NS::Value valueForKey(std::string_view key) const override;

protected:
    VLKSyncProperties();
    ~VLKSyncProperties() override;

    /// Sets an observed property.
    template <class T>
    void change(std::string_view key, T& property, T value) {
        willChangeValueForKey(key);
        property = std::move(value);
        didChangeValueForKey(key);
    }
    void changeReport(const std::function<void(VLKCycleReport&)>& edit);

    // Main thread only, but for what is fixed after construction (context, creator, queues) and m_observing.
    Text m_appId, m_apiKey, m_instanceId, m_latestModelVersion = "1.0";
    std::string m_serverUrl;
    NS::Value m_userId;
    Text m_emailAddress, m_userPassword, m_emailObservationToken, m_passwordObservationToken;
    VLKResultCallback m_loginCallback;
    VLKContextCreator m_ctxCreator;
    std::shared_ptr<NS::ManagedObjectContext> m_ctx;
    std::unique_ptr<NS::OperationQueue> m_saveQueue, m_readQueue, m_hashingQueue;
    VLKTransactionMap m_changes;
    std::optional<VLKTransactionMap> m_batch;
    bool m_enableChunking = false;
    std::atomic<bool> m_observing = false;
    std::shared_ptr<NS::Timer> m_pollTimer;
    double m_refreshInterval = 60, m_requestTimeout = 60;
    bool m_wantsToSleep = true, m_syncInProgress = false;
    std::function<void()> m_continuation;
    std::optional<NS::Error> m_lastError;
    std::optional<NS::Date> m_lastSync, m_lastAutoSend;
    VLKCycleReport m_cycleReport;
    std::optional<NS::Dictionary> m_latestSyncResult;
    bool m_processingObjectListing = false, m_schemaSent = false, m_userLocked = false;
    NS::Array m_lastKnownObjectTimes, m_lastKnownObjects;
    std::int32_t m_knownObjectsCallCount = 0;
    std::string m_currentOperation;
    float m_percentSyncComplete = 0;
    std::int64_t m_totalObjectsToUpload = 0, m_currentUploadObjectNumber = 0, m_totalObjectsToDownload = 0,
                 m_currentDownloadObjectNumber = 0;
    NS::NotificationCenter::Token m_uploadProgressObserver, m_downloadProgressObserver;
    std::deque<std::shared_ptr<VLKS3Uploader>> m_pendingBlobUploads;
    std::int64_t m_failedBlobUploadCount = 0;
    NS::OrderedMap<std::shared_ptr<NS::Observable>> m_observedGenericObjects;
    NS::OrderedMap<std::string> m_genericObservationTokens;
    NS::OrderedMap<std::shared_ptr<VLKGenericObjectInfo>> m_genericObjectGuids;
    std::optional<NS::Dictionary> m_syncState;
    Text m_stateSavePath;
};

}  // namespace velkor
