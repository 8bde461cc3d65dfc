// The sync cycle: lock, send, unlock.
#include <utility>

#include "PelmoLib/encodings/NSNumber+Random.h"
#include "Sync/VLKAnswer.h"
#include "Sync/VLKSyncController+Internal.h"
#include "objectstore/StoreReadFailure.h"

namespace velkor {

namespace {

constexpr std::int64_t unauthorized = 401;
constexpr std::int64_t conflict = 409;
/// Code of the library's error for a request that lacks what the service needs.
constexpr std::int64_t unwritableRequest = 400;
// A refused lock is asked for again after the interval and a random number of seconds: from the first, below the second.
constexpr std::int32_t shortestDelay = 3;
constexpr std::int32_t delayLimit = 20;

NS::Error loggedOut() { return NS::Error::withDescription(NS::VelkorErrorDomain, unauthorized, "The user has logged out."); }

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
    command->setCompletionBlock([this, continuation = std::move(continuation), failureHandler, logouts = m_internals->logouts,
                                 turn = m_internals->locks.locksAskedFor() + 1](const NS::Dictionary& answer) {
        if (logouts != m_internals->logouts) return m_internals->lockForsaken(turn, failureHandler);
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

void VLKSyncController::Internals::lockForsaken(std::uint64_t turn, const std::function<void(const NS::Error&)>& failureHandler) {
    const NS::Error error = loggedOut();
    if (locks.locksAskedFor() == turn) failCycle(error);
    if (failureHandler) failureHandler(error);
}

void VLKSyncController::Internals::lockRefused(const NS::Error& error,
                                               const std::function<void(const NS::Error&)>& failureHandler) {
    // Whoever hears of it may log in anew at once, and that lock's state and callback are not to be taken for this one's.
    const std::uint64_t turn = locks.locksAskedFor();
    const auto loginCallback = self.m_loginCallback;
    self.changeReport([&](VLKCycleReport& report) { report.lockError = error; });
    self.setSyncInProgress(false);
    if (error.code() == unauthorized) {
        logMessage(100, "VLK Error: %@ while verifying user.", error);
        self.m_lastError = error;
        if (failureHandler) failureHandler(error);
    }
    if (locks.locksAskedFor() != turn) {
        if (loginCallback) loginCallback(false, error);
        return;
    }
    // Somebody else is syncing as this user: the credentials are right.
    if (error.code() == conflict && self.m_loginCallback) return tellLogin(true, std::nullopt);
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
        resetBatch();  // a host that goes on all the same keeps its changes
        throw;
    } catch (const NS::StoreReadFailure& failure) {
        return m_internals->failCycle(failure.error());
    } catch (const std::exception& exception) {
        return m_internals->failCycle(NS::Error::withDescription(NS::VelkorErrorDomain, unwritableRequest, exception.what()));
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
    // Copies of the block share the text, which may be large.
    command->setCompletionBlock([this, body = std::make_shared<std::optional<std::string>>(std::move(json)),
                                 logouts = m_internals->logouts](const NS::Dictionary& answer) {
        if (logouts != m_internals->logouts) return m_internals->failCycle(loggedOut());
        setUserId(VLKAnswer::identifier(answer, "user_id"));
        m_internals->takeRefreshInterval(answer);
        launchChangesCommandWithJSON(std::move(*body));
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
