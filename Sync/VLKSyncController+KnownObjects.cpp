// Known-objects reconciliation: when client and service disagree about the set of objects, they compare their lists.
#include <algorithm>
#include <utility>

#include "PelmoLib/encodings/NSDate+Utils.h"
#include "Sync/VLKAnswer.h"
#include "Sync/VLKChangeWriteOperation.h"
#include "Sync/VLKSyncController+Internal.h"
#include "Sync/VLKSyncableObjectHasher.h"
#include "json/JSONWriter.h"

namespace velkor {

namespace {

/// The service needs long to compare a large listing.
constexpr double shortestListingTimeout = 360;
/// So many listings within so many seconds count as a loop.
constexpr std::size_t loopListings = 3;
constexpr double loopSeconds = 1200;

}  // namespace

void VLKSyncController::sendFullObjectListing() {
    const std::uint32_t task = beginBackgroundOpWithHandler([] {});
    m_internals->postOnMainQueue(VLKStartingSyncNotification);
    m_readQueue->addOperation([this, task] {
        const auto ctx = m_ctxCreator();  // none when the host has closed its store
        const auto guids = ctx ? VLKSyncableObjectHasher(ctx, *this).guidsForAllKnownObjectsInContext(*ctx) : std::nullopt;
        if (guids) {
            m_internals->onMainQueue([this, guids = *guids] { sendObjectListing(guids); });
        } else {
            m_internals->endUnableToCompare();
        }
        endBackgroundOperation(task);
    });
}

void VLKSyncController::sendObjectListing(const NS::Array& guids) {
    updateSyncStatusWithMessage("Comparing notes with the server...", -1.0F);
    storeKnownObjectsTime();
    if (areWeLoopingOnKnownObjects()) logMessage(100, "Warning: Known Objects has been called a lot. This could be an issue.");
    ++m_knownObjectsCallCount;
    m_processingObjectListing = true;
    changeReport([](VLKCycleReport& report) { ++report.listings; });

    auto json = m_internals->listingBody(guids);
    auto request = postRequestForURLWithJSON(NS::format("%@/users/%@/known_objects/sync.json", m_serverUrl, m_userId),
                                             json ? NS::Data(std::move(*json)) : NS::Data());
    request = m_internals->authenticated(std::move(request));
    request.setTimeoutInterval(std::max(shortestListingTimeout, m_requestTimeout));
    const auto command = m_internals->commandFor(std::move(request));
    command->setDelegate(this);
    const std::uint32_t task = m_internals->beginInterruptibleOperation(command);
    command->setFailureBlock([this, task](const NS::Error& error) { handleFailedKnownObjectsCommandWithError(error, task); });
    command->setCompletionBlock([this, task](const NS::Dictionary& answer) { m_internals->listingAnswered(answer, task); });
    command->setFinallyBlock([this] { m_processingObjectListing = false; });
    m_internals->commands.start(command);
}

std::optional<std::string> VLKSyncController::Internals::listingBody(const NS::Array& guids) const {
    std::string json;
    JSONWriter writer(json);
    writer.beginObject();
    writer.member("client_date", todayAtMidnight());
    writer.member("allObjects", guids);
    writer.member("protocol_version", VLKProtocolVersion);
    if (self.m_appId) writer.member("app_id", *self.m_appId);
    if (self.m_apiKey) writer.member("api_key", *self.m_apiKey);
    writer.endObject();
    if (writer.ok()) return json;
    logMessage(100, "Unable to write the object listing: %@", writer.failure());
    return std::nullopt;
}

void VLKSyncController::Internals::listingAnswered(const NS::Dictionary& answer, std::uint32_t task) {
    logMessage(400, "Received data from server for known objects: %@", answer);
    self.setSyncStatusMessageWithFormat("Writing changes...");
    if (!VLKAnswer::isBatched(answer)) return self.handleCompletedKnownObjectsCommandWithResult(answer);
    self.downloadPage(
        1, downloadFor(answer),
        [this](const NS::Dictionary& complete) { self.handleCompletedKnownObjectsCommandWithResult(complete); },
        [this, task](const NS::Error& error) { self.handleFailedKnownObjectsCommandWithError(error, task); });
}

void VLKSyncController::handleCompletedKnownObjectsCommandWithResult(const NS::Dictionary& result) {
    m_internals->write(
        result,
        [this](const VLKChangeWriteOperation& operation) {
            // The number first: the first one is computed against the previous total.
            setCurrentDownloadObjectNumber(totalObjectsToDownload() - operation.downloadCount());
            setTotalObjectsToDownload(operation.totalDownloadCount());
        },
        [this, result] { m_internals->listingWritten(result); }, [this](const NS::Error&) { syncEnded(); });
    setLastSync(NS::Date::now());
}

void VLKSyncController::Internals::listingWritten(const NS::Dictionary& answer) {
    const NS::Array unknown = VLKAnswer::array(answer, "unknown_objects");
    self.createTransactionsForObjectsFromJSON(unknown);
    takeHighestTransaction(answer);
    self.saveSyncState();
    self.m_processingObjectListing = false;
    if (unknown.empty()) {
        self.syncEnded();
    } else {
        onMainQueue([this] { self.sendUpdatesWithoutLock(); });
    }
}

void VLKSyncController::handleFailedKnownObjectsCommandWithError(const NS::Error& error, std::uint32_t taskId) {
    logMessage(100, "VLK Error: %@ while sending object listing", error);
    syncEnded();
    endBackgroundOperation(taskId);
}

// --- The history of listings ---

void VLKSyncController::storeKnownObjectsTime() {
    NS::Array times;
    for (std::size_t i = m_lastKnownObjectTimes.size() >= loopListings ? 1 : 0; i < m_lastKnownObjectTimes.size(); ++i) {
        times.push_back(m_lastKnownObjectTimes[i]);
    }
    times.push_back(NS::Date::now());
    m_lastKnownObjectTimes = std::move(times);
}

bool VLKSyncController::areWeLoopingOnKnownObjects() {
    bool looping = false;
    m_internals->questions.ask([&] {
        const std::size_t count = m_lastKnownObjectTimes.size();
        if (count < loopListings) return;
        const auto first = m_lastKnownObjectTimes[0].asDate();
        const auto last = m_lastKnownObjectTimes[count - 1].asDate();
        looping = first && last && last->timeIntervalSinceDate(*first) < loopSeconds;
    });
    return looping;
}

}  // namespace velkor
