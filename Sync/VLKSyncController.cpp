// Creation and teardown, timer, logging, observing and status texts.
#include "Sync/VLKSyncController.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <utility>

#include "PelmoLib/encodings/NSData+Digests.h"
#include "PelmoLib/encodings/NSNumber+Random.h"
#include "PelmoLib/encodings/NSString+UUID.h"
#include "Sync/VLKByteCount.h"
#include "Sync/VLKChangeWriteOperation.h"
#include "Sync/VLKGuardedStep.h"
#include "Sync/VLKSyncController+Internal.h"
#include "Sync/VLKTransferProgress.h"
#include "objectstore/PersistentStoreCoordinator.h"
#include "platform/concurrency/RunLoop.h"
#include "platform/concurrency/UserInput.h"
#include "platform/persistence/Bundle.h"

namespace velkor {

namespace {

/// A timer below a second would keep the service busy with one client.
constexpr double shortestInterval = 1;
constexpr double longestInterval = 365.0 * 24 * 60 * 60;
constexpr double idleSeconds = 600;
constexpr std::uint32_t noBackgroundOperation = 0xFFFFFFFF;

VLKSyncController* globalController = nullptr;

}  // namespace

// --- Creation and teardown ---

VLKSyncController* VLKSyncController::globalInstanceWithServerURL(std::string serverURL, VLKContextCreator contextCreator) {
    if (globalController) {
        throw NS::Exception(
            "VLKSyncControllerAlreadyInitialized",
            "The SyncController has already been initialized and may not be initialized again. Use +globalInstance to get the "
            "current instance.");
    }
    globalController = new VLKSyncController(std::move(serverURL), std::move(contextCreator));
    // The cryptographic library registers its own end at its first use. Here, so that the teardown, which may still be hashing,
    // comes before it.
    (void)sha256Hash({});
    // Registered last, so it runs before anything that the controller uses is destroyed.
    std::atexit([] {
        if (NS::RunLoop::isMainThread()) delete std::exchange(globalController, nullptr);
    });
    return globalController;
}

VLKSyncController* VLKSyncController::globalInstance() {
    NS::assertThat(globalController, "SyncController has not been initialized.  Call -globalInstanceWithContextCreator first!");
    return globalController;
}

VLKSyncController::VLKSyncController(std::string serverURL, VLKContextCreator contextCreator)
    : m_internals(std::make_unique<Internals>(*this)) {
    NS::assertThat(NS::RunLoop::isMainThread(), "The SyncController must be created on the main thread");
    seedRandomNumberGenerator();
    VLKTransaction::registerArchivableClasses();
    loadSyncState();
    if (const auto identifier = NS::Bundle::mainBundle().bundleIdentifier()) m_appId = *identifier;
    m_serverUrl = std::move(serverURL);
    m_ctxCreator = std::move(contextCreator);

    const auto creator = VLKMocCreator::sharedInstanceWithCreatorBlock(m_ctxCreator);
    m_ctx = m_ctxCreator ? m_ctxCreator() : nullptr;
    NS::assertThat(m_ctx != nullptr, "The SyncController needs a context when it is created");
    m_ctx->setAuthor(std::string(VLKSyncAuthor));
    m_internals->coordinator = m_ctx->persistentStoreCoordinator();
    creator->setCtx(m_ctx);

    enableObserving();
    m_internals->observeSaves();
    m_instanceId = stringWithUUID();
    m_internals->takeInstanceId();
    logMessage(200, "Velkor Sync System initialized.");
    m_internals->logSyncableEntities();
    m_internals->observeProgress();
}

VLKSyncController::~VLKSyncController() {
    Internals& internals = *m_internals;
    if (m_emailObservationToken) removeObserverWithBlockToken(*m_emailObservationToken);
    if (m_passwordObservationToken) removeObserverWithBlockToken(*m_passwordObservationToken);
    NS::NotificationCenter& center = NS::NotificationCenter::defaultCenter();
    for (const auto& observer : {m_uploadProgressObserver, m_downloadProgressObserver, internals.didSaveObserver})
        center.removeObserver(observer);
    internals.capturedSaves->close();
    if (m_pollTimer) m_pollTimer->invalidate();
    internals.commands.cancelAll();
    internals.dropBlobTransfers();
    internals.cancelBlobDeletions();
    for (NS::OperationQueue* queue : {m_saveQueue.get(), m_readQueue.get(), m_hashingQueue.get()}) queue->cancelAllOperations();
    internals.questions.close();
    for (NS::OperationQueue* queue : {m_saveQueue.get(), m_readQueue.get(), m_hashingQueue.get()})
        queue->waitUntilAllOperationsAreFinished();
    internals.alive.reset();  // not before: other threads read it to queue their blocks
    VLKMocCreator::dropSharedInstance();
    logMessage(200, "Sync engine deallocated.");
}

void VLKSyncController::Internals::observeSaves() {
    // The center may still call while teardown removes the observer, from a thread that is saving: so the queue of saves is
    // shared.
    const auto handle = [this](const NS::Notification& notification) {
        // A host's save never fails because of us.
        runGuarded([&] { self.dataChanged(notification); });
    };
    didSaveObserver = NS::NotificationCenter::defaultCenter().addObserver(
        NS::ManagedObjectContextDidSaveNotification, nullptr, nullptr,
        [saves = capturedSaves, handle](const NS::Notification& notification) { saves->observe([&] { handle(notification); }); });
}

void VLKSyncController::Internals::observeProgress() {
    const auto observe = [this](std::string_view notification, std::string_view bytesKey, std::string_view format, auto number,
                                auto total) {
        return NS::NotificationCenter::defaultCenter().addObserver(
            notification, nullptr, &NS::OperationQueue::mainQueue(),
            [this, bytesKey, format, number, total](const NS::Notification& progress) {
                const auto bytes = progress.userInfo[bytesKey].asInteger().value_or(0);
                const auto all = progress.userInfo[VLKTotalBytes].asInteger().value_or(0);
                self.setSyncStatusMessageWithFormat(format, (self.*number)() + 1, (self.*total)(), textForByteCount(bytes),
                                                    textForByteCount(all));
            });
    };
    self.m_uploadProgressObserver =
        observe(VLKDataUploaderDidUploadData, VLKBytesUploaded, "Uploading object %ld/%ld (%@/%@)...",
                &VLKSyncController::currentUploadObjectNumber, &VLKSyncController::totalObjectsToUpload);
    self.m_downloadProgressObserver =
        observe(VLKDataDownloaderDidDownloadData, VLKBytesDownloaded, "Downloading object %ld/%ld (%@/%@)...",
                &VLKSyncController::currentDownloadObjectNumber, &VLKSyncController::totalObjectsToDownload);
}

void VLKSyncController::Internals::onMainQueue(std::function<void()> block) const {
    NS::OperationQueue::mainQueue().addOperation([watch = std::weak_ptr<const bool>(alive), block = std::move(block)] {
        if (!watch.expired()) block();
    });
}

void VLKSyncController::Internals::postOnMainQueue(std::string_view notification) const {
    onMainQueue([this, notification] { NS::NotificationCenter::defaultCenter().post(notification, &self); });
}

// --- Timer ---

void VLKSyncController::start() {
    m_wantsToSleep = false;
    resetTimer();
}

void VLKSyncController::cancel() {
    m_wantsToSleep = true;
    if (m_pollTimer) m_pollTimer->invalidate();
    m_pollTimer = nullptr;
}

void VLKSyncController::resetTimer() { resetTimerWithInterval(m_refreshInterval); }

void VLKSyncController::resetTimerWithInterval(double seconds) {
    if (m_pollTimer) m_pollTimer->invalidate();
    if (m_wantsToSleep) return;
    const double interval = std::isnan(seconds) ? shortestInterval : std::clamp(seconds, shortestInterval, longestInterval);
    m_pollTimer = NS::Timer::scheduledTimer(NS::RunLoop::main(), interval, true,
                                            [this](NS::Timer& timer) { autoSendUpdatesIfNotIdle(timer); });
}

void VLKSyncController::autoSendUpdatesIfNotIdle(NS::Timer& timer) {
    if (m_internals->cycleGuard && !m_internals->cycleGuard()) return;
    sendUpdates(&timer);
}

void VLKSyncController::setCycleGuard(std::function<bool()> guard) { m_internals->cycleGuard = std::move(guard); }

bool VLKSyncController::appIsIdle() const { return NS::secondsSinceLastUserInput() > idleSeconds; }

// --- Logging, observing, status ---

std::int32_t VLKSyncController::logLevel() const noexcept { return VLKLog::sharedInstance().logLevel(); }

void VLKSyncController::setLogLevel(std::int32_t level) {
    VLKLog::sharedInstance().setLogLevel(level);
    logMessage(200, "Velkor Sync Logging set to: %d", level);
    m_internals->logSyncableEntities();
}

void VLKSyncController::Internals::logSyncableEntities() const {
    logMessage(200, "Syncable entities detected:");
    for (const NS::EntityDescription* entity : self.syncableEntityTypesInCtx(self.m_ctx.get()))
        logMessage(200, "\t%@", entity->name());
}

void VLKSyncController::enableObserving() {
    logMessage(200, "Observing enabled.");
    m_observing = true;
    m_internals->coordinator->setHistoryMark(true);
}

void VLKSyncController::disableObserving() {
    logMessage(200, "Observing disabled.");
    m_observing = false;
    m_internals->coordinator->setHistoryMark(false);
}

void VLKSyncController::updateSyncStatusWithMessage(std::string message, float pecentage) {
    setCurrentOperation(std::move(message));
    if (pecentage >= 0) setPercentSyncComplete(pecentage);
    logMessage(300, "%f", m_percentSyncComplete);
}

std::uint32_t VLKSyncController::beginBackgroundOpWithHandler(std::function<void()>) { return noBackgroundOperation; }

void VLKSyncController::endBackgroundOperation(std::uint32_t) {}

}  // namespace velkor
