// The sync cycle: lock, send, unlock.
#include <utility>

#include "PelmoLib/encodings/NSNumber+Random.h"
#include "Sync/VLKAnswer.h"
#include "Sync/VLKSyncController+Internal.h"

namespace velkor {

namespace {

constexpr std::int64_t unauthorized = 401;
constexpr std::int64_t conflict = 409;
/// Code of the library's error for a request that lacks what the service needs.
constexpr std::int64_t unwritableRequest = 400;
// A refused lock is asked for again after the interval and a random number of seconds: from the first, below the second.
constexpr std::int32_t shortestDelay = 3;
constexpr std::int32_t delayLimit = 20;

}  // namespace

void VLKSyncController::sendUpdates(const NS::Object*) {
    if (m_syncInProgress) return;
    lockWithContinuation([this] {
        logMessage(200, "Checking for updates...");
        m_internals->fileFromHistory();
        sendUpdatesWithoutLock();
    });
}

void VLKSyncController::lockWithContinuation(std::function<void()> continuation) {
    lockWithContinuation(std::move(continuation), nullptr);
}

void VLKSyncController::lockWithContinuation(std::function<void()> continuation,
                                             std::function<void(const NS::Error&)> failureHandler) {
    setSyncStatusMessageWithFormat("Locking user...");
    setSyncInProgress(true);
    changeReport([](VLKCycleReport& report) { report = {}; });
    const auto url = NS::format("%@/client/v%@/%@/%@/lock.json", m_serverUrl, VLKProtocolVersion, m_appId, m_instanceId);
    const auto command = m_internals->commandFor(m_internals->authenticated(NS::MutableURLRequest(url)));
    command->setCompletionBlock([this, continuation = std::move(continuation)](const NS::Dictionary& answer) {
        m_internals->lockGranted(answer);
        if (continuation) continuation();
    });
    command->setFailureBlock([this, failureHandler = std::move(failureHandler)](const NS::Error& error) {
        m_internals->lockRefused(error, failureHandler);
    });
    m_internals->locks.startLock(command);
}

void VLKSyncController::Internals::lockGranted(const NS::Dictionary& answer) {
    logMessage(200, "Locked user...");
    self.setUserId(VLKAnswer::identifier(answer, "user_id"));
    if (takeRefreshInterval(answer)) self.resetTimer();
}

void VLKSyncController::Internals::lockRefused(const NS::Error& error,
                                               const std::function<void(const NS::Error&)>& failureHandler) {
    self.setSyncInProgress(false);
    self.changeReport([&](VLKCycleReport& report) { report.lockError = error; });
    if (error.code() == unauthorized) {
        logMessage(100, "VLK Error: %@ while verifying user.", error);
        self.m_lastError = error;
        if (failureHandler) failureHandler(error);
    }
    if (error.code() == conflict && self.m_loginCallback) {
        // Somebody else is syncing as this user: the credentials are right.
        const auto callback = self.m_loginCallback;
        callback(true, std::nullopt);
        return;
    }
    logMessage(200, "User busy.");
    self.resetTimerWithInterval(self.m_refreshInterval +
                                static_cast<double>(numberWithRandomValueBetweenStart(shortestDelay, delayLimit)));
    postOnMainQueue(VLKEndedSyncNotification);
    runContinuation();
    self.setSyncInProgress(false);
    tellLogin(false, error);
}

bool VLKSyncController::Internals::takeRefreshInterval(const NS::Dictionary& answer) {
    const auto seconds = VLKAnswer::number(answer, "refresh_interval");
    if (seconds) self.m_refreshInterval = static_cast<float>(*seconds);
    return seconds.has_value();
}

void VLKSyncController::Internals::runContinuation() {
    if (self.m_continuation) onMainQueue(std::exchange(self.m_continuation, nullptr));
}

void VLKSyncController::Internals::tellLogin(bool success, const std::optional<NS::Error>& error) {
    // A copy: the callback may replace itself.
    if (const auto callback = self.m_loginCallback) callback(success, error);
}

void VLKSyncController::sendUpdatesWithoutLock() {
    if (m_processingObjectListing) return;
    if (m_batch && !m_batch->empty()) return;
    if (!m_emailAddress || !m_userPassword) return;
    m_internals->postOnMainQueue(VLKStartingSyncNotification);
    std::optional<std::string> json;
    try {
        json = batchCurrentChanges();
    } catch (const NS::AssertionFailure&) {
        throw;
    } catch (const NS::Exception& exception) {
        return m_internals->failCycle(NS::Error::withDescription(NS::VelkorErrorDomain, unwritableRequest, exception.reason()));
    }
    if (!m_userId) {
        launchVerifyCommandForJSON(std::move(json), m_emailAddress, m_userPassword);
    } else {
        launchChangesCommandWithJSON(std::move(json));
    }
}

std::shared_ptr<JSONWebCommand> VLKSyncController::verificationCommandForUsername(const Text& username, const Text& password) {
    NS::MutableURLRequest request(NS::format("%@/transactions/verify.json", m_serverUrl));
    request.setTimeoutInterval(m_requestTimeout);
    addAuthenticationForUsername(request, NS::describe(username), NS::describe(password));
    return std::make_shared<JSONWebCommand>(std::move(request));
}

void VLKSyncController::launchVerifyCommandForJSON(std::optional<std::string> json, const Text& username, const Text& password) {
    setSyncStatusMessageWithFormat("Verifying credentials...");
    const auto command = verificationCommandForUsername(username, password);
    command->setDelegate(this);
    const std::uint32_t task = beginBackgroundOpWithHandler(nullptr);
    command->setCompletionBlock([this, json = std::move(json)](const NS::Dictionary& answer) mutable {
        setUserId(VLKAnswer::identifier(answer, "user_id"));
        m_internals->takeRefreshInterval(answer);
        launchChangesCommandWithJSON(std::move(json));
        m_internals->tellLogin(true, std::nullopt);
    });
    command->setFailureBlock([this](const NS::Error& error) {
        logMessage(100, "VLK Error: %@ while verifying user.", error);
        m_internals->failCycle(error);
        m_internals->tellLogin(false, error);
    });
    command->setFinallyBlock([this, task] { endBackgroundOperation(task); });
    m_internals->commands.start(command);
}

/// Ends a cycle that never came to its changes request.
void VLKSyncController::Internals::failCycle(const NS::Error& error) {
    self.m_lastError = error;
    self.resetBatch();
    self.resetTimer();
    self.syncEnded();
}

void VLKSyncController::forceSyncWithContinuation(std::function<void()> continuation) {
    m_loginCallback = nullptr;
    m_internals->postOnMainQueue(VLKStartingSyncNotification);
    m_continuation = std::move(continuation);
    if (m_batch && !m_batch->empty()) return;
    sendUpdates();
}

void VLKSyncController::forceSync() { forceSyncWithContinuation(nullptr); }

void VLKSyncController::unlock() {
    setSyncStatusMessageWithFormat("Unlocking user.");
    const auto url = NS::format("%@/client/%@/%@/unlock.json", m_serverUrl, m_appId, m_instanceId);
    const auto command = m_internals->commandFor(m_internals->authenticated(NS::MutableURLRequest(url)));
    command->setCompletionBlock([](const NS::Dictionary&) { logMessage(200, "Unlocked user..."); });
    command->setFailureBlock([](const NS::Error&) { logMessage(200, "Failed to unlock user."); });
    command->setFinallyBlock([this, turn = m_internals->locks.locksAskedFor()] { m_internals->unlockAnswered(turn); });
    m_internals->locks.startUnlock(command);
}

void VLKSyncController::Internals::unlockAnswered(std::uint64_t turn) {
    // Once a later lock has been asked for, the state is that of its cycle.
    if (locks.locksAskedFor() == turn) {
        self.setSyncInProgress(false);
        self.changeReport([](VLKCycleReport& report) { report.unlockAnswered = true; });
    }
    locks.unlockAnswered();
}

void VLKSyncController::syncEnded() {
    unlock();
    logMessage(200, "Sync ending.");
    updateSyncStatusWithMessage("Finished.", 1.0F);
    m_internals->postOnMainQueue(VLKEndedSyncNotification);
    m_internals->runContinuation();
    setSyncInProgress(false);
}

}  // namespace velkor
