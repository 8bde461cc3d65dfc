#include "Sync/VLKBlobDownloads.h"

#include <utility>

#include "PelmoLib/NSEntityDescription+VLK.h"
#include "PelmoLib/encodings/VLKLog.h"
#include "Sync/VLKDownloadMailbox.h"
#include "Sync/VLKS3Downloader.h"
#include "objectstore/ManagedObject.h"

namespace velkor {

using namespace NS;

namespace {

constexpr std::int64_t mostErrors = 5;
constexpr std::string_view downloadCountKey = "downloadCount";

}  // namespace

/// What observers see; it outlives the downloads while one of their tasks runs.
class VLKBlobDownloads::Progress : public Observable {
public:
    Value valueForKey(std::string_view key) const override {
        if (key == downloadCountKey) return downloadCount.load();
        if (key == "totalDownloadCount") return totalDownloadCount.load();
        return Observable::valueForKey(key);
    }
    std::atomic<std::int64_t> downloadCount = 0;
    std::atomic<std::int64_t> totalDownloadCount = 0;
};

VLKBlobDownloads::VLKBlobDownloads(Service service, std::vector<Error>& errors)
    : m_service(std::move(service)),
      m_progress(std::make_shared<Progress>()),
      m_mailbox(std::make_shared<VLKDownloadMailbox>()),
      m_errors(errors) {}

VLKBlobDownloads::~VLKBlobDownloads() = default;

// --- Scheduling ---

void VLKBlobDownloads::schedule(const std::vector<std::shared_ptr<VLKTransaction>>& transactions) {
    for (const auto& transaction : transactions) {
        if (!transaction->isDelete() && transaction->objectHasBlobs()) schedule(transaction);
    }
    m_progress->totalDownloadCount = static_cast<std::int64_t>(m_pending.size());
}

void VLKBlobDownloads::schedule(const std::shared_ptr<VLKTransaction>& transaction) {
    VLKLog& log = VLKLog::sharedInstance();
    log.logMessageAtLevel(300, "Transaction for object %@ has blobs.", transaction->objGuid());
    const EntityDescription* entity =
        entityDescriptionForClassNamed(transaction->objType().value_or("(null)"), transaction->ctx().get());
    if (!entity) {
        log.logMessageAtLevel(100, "Unable to get entity description for object of type: %@", transaction->objType());
        return;
    }
    for (const std::string& attribute : vlk_blobs(*entity)) {
        log.logMessageAtLevel(300, "Found blob attribute: %@", attribute);
        auto downloader = downloaderFor(*transaction, attribute);
        change([&] { m_pending.push_back({std::move(downloader), transaction, attribute}); });
    }
}

std::shared_ptr<VLKS3Downloader> VLKBlobDownloads::downloaderFor(const VLKTransaction& transaction,
                                                                 const std::string& attribute) const {
    const auto downloader = std::make_shared<VLKS3Downloader>(m_service.url, m_service.appId,
                                                              std::string(transaction.objGuid().value_or("(null)")), attribute);
    downloader->setEmail(m_service.email);
    downloader->setPassword(m_service.password);
    const std::weak_ptr<VLKS3Downloader> sender = downloader;
    downloader->setCompletionBlock([mailbox = m_mailbox, sender](const Data& content) { mailbox->leave({sender, content}); });
    downloader->setFailureBlock([mailbox = m_mailbox, sender](const Error& error) { mailbox->leave({sender, error}); });
    return downloader;
}

// --- Running ---

bool VLKBlobDownloads::run() {
    startFirst();
    while (!m_pending.empty()) {
        const auto letter = m_mailbox->next();
        if (!letter) {
            m_pending.front().downloader->cancel();
            return false;
        }
        if (letter->sender.lock() != m_pending.front().downloader) continue;
        if (letter->content) {
            firstArrived(letter->content.value());
        } else {
            firstFailed(letter->content.error());
        }
    }
    return true;
}

void VLKBlobDownloads::startFirst() {
    if (!m_pending.empty()) m_pending.front().downloader->start();
}

void VLKBlobDownloads::firstArrived(const Data& content) {
    const Download& download = m_pending.front();
    if (const auto object = download.transaction->obj()) object->setValueForKey(content, download.attribute);
    removeFirst();
    startFirst();
}

void VLKBlobDownloads::firstFailed(const Error& error) {
    VLKLog::sharedInstance().logMessageAtLevel(100, "%@ Download error: %@", m_pending.front().transaction->objGuid(),
                                               error.localizedDescription());
    ++m_numberOfErrors;
    if (failed()) removeFirst();
    startFirst();
    m_errors.push_back(error);
}

void VLKBlobDownloads::removeFirst() {
    change([this] { m_pending.pop_front(); });
}

void VLKBlobDownloads::change(const std::function<void()>& edit) {
    m_progress->willChangeValueForKey(downloadCountKey);
    edit();
    m_progress->downloadCount = static_cast<std::int64_t>(m_pending.size());
    m_progress->didChangeValueForKey(downloadCountKey);
}

void VLKBlobDownloads::cancel() { m_mailbox->close(); }

// --- Counts ---

bool VLKBlobDownloads::failed() const noexcept { return m_numberOfErrors > mostErrors; }

std::int64_t VLKBlobDownloads::totalDownloadCount() const noexcept { return m_progress->totalDownloadCount; }

std::int64_t VLKBlobDownloads::downloadCount() const noexcept { return m_progress->downloadCount; }

Observable& VLKBlobDownloads::progress() noexcept { return *m_progress; }

}  // namespace velkor
