#include "Sync/VLKSyncProperties.h"

#include <unordered_map>

namespace velkor {

namespace {

NS::Value valueOf(const std::optional<std::string>& text) { return text ? NS::Value(*text) : NS::Value(); }
NS::Value valueOf(const std::optional<NS::Date>& date) { return date ? NS::Value(*date) : NS::Value(); }

using Reader = NS::Value (*)(const VLKSyncProperties&);

const std::unordered_map<std::string_view, Reader>& readers() {
    using P = VLKSyncProperties;
    static const std::unordered_map<std::string_view, Reader> table = {
        {"appId", [](const P& p) { return valueOf(p.appId()); }},
        {"apiKey", [](const P& p) { return valueOf(p.apiKey()); }},
        {"serverUrl", [](const P& p) { return NS::Value(p.serverUrl()); }},
        {"instanceId", [](const P& p) { return valueOf(p.instanceId()); }},
        {"latestModelVersion", [](const P& p) { return valueOf(p.latestModelVersion()); }},
        {"userId", [](const P& p) { return p.userId(); }},
        {"emailAddress", [](const P& p) { return valueOf(p.emailAddress()); }},
        {"userPassword", [](const P& p) { return valueOf(p.userPassword()); }},
        {"enableChunking", [](const P& p) { return NS::Value(p.enableChunking()); }},
        {"observing", [](const P& p) { return NS::Value(p.observing()); }},
        {"refreshInterval", [](const P& p) { return NS::Value(p.refreshInterval()); }},
        {"requestTimeout", [](const P& p) { return NS::Value(p.requestTimeout()); }},
        {"wantsToSleep", [](const P& p) { return NS::Value(p.wantsToSleep()); }},
        {"syncInProgress", [](const P& p) { return NS::Value(p.syncInProgress()); }},
        {"lastSync", [](const P& p) { return valueOf(p.lastSync()); }},
        {"lastAutoSend", [](const P& p) { return valueOf(p.lastAutoSend()); }},
        {"cycleReport", [](const P& p) { return NS::Value(p.cycleReport().dictionary()); }},
        {"processingObjectListing", [](const P& p) { return NS::Value(p.processingObjectListing()); }},
        {"knownObjectsCallCount", [](const P& p) { return NS::Value(p.knownObjectsCallCount()); }},
        {"currentOperation", [](const P& p) { return NS::Value(p.currentOperation()); }},
        {"percentSyncComplete", [](const P& p) { return NS::Value(static_cast<double>(p.percentSyncComplete())); }},
        {"totalObjectsToUpload", [](const P& p) { return NS::Value(p.totalObjectsToUpload()); }},
        {"currentUploadObjectNumber", [](const P& p) { return NS::Value(p.currentUploadObjectNumber()); }},
        {"totalObjectsToDownload", [](const P& p) { return NS::Value(p.totalObjectsToDownload()); }},
        {"currentDownloadObjectNumber", [](const P& p) { return NS::Value(p.currentDownloadObjectNumber()); }},
        {"failedBlobUploadCount", [](const P& p) { return NS::Value(p.failedBlobUploadCount()); }},
        {"schemaSent", [](const P& p) { return NS::Value(p.schemaSent()); }},
        {"userLocked", [](const P& p) { return NS::Value(p.userLocked()); }},
        {"stateSavePath", [](const P& p) { return valueOf(p.stateSavePath()); }},
    };
    return table;
}

}  // namespace

VLKSyncProperties::VLKSyncProperties()
    : m_saveQueue(std::make_unique<NS::OperationQueue>()),
      m_readQueue(std::make_unique<NS::OperationQueue>()),
      m_hashingQueue(std::make_unique<NS::OperationQueue>()) {
    m_saveQueue->setMaxConcurrentOperationCount(1);
}

VLKSyncProperties::~VLKSyncProperties() = default;

NS::Value VLKSyncProperties::valueForKey(std::string_view key) const {
    const auto found = readers().find(key);
    return found == readers().end() ? NS::Observable::valueForKey(key) : found->second(*this);
}

void VLKSyncProperties::changeReport(const std::function<void(VLKCycleReport&)>& edit) {
    willChangeValueForKey("cycleReport");
    edit(m_cycleReport);
    didChangeValueForKey("cycleReport");
}

}  // namespace velkor
