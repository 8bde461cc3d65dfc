#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Sync/VLKTransaction.h"
#include "platform/base/Data.h"
#include "platform/base/Error.h"
#include "platform/observation/Observable.h"

namespace velkor {

class VLKDownloadMailbox;
class VLKS3Downloader;

/// Downloads the blobs of received transactions into their objects, one after another. A download that fails is tried again until
/// the failures of all of them together are too many; from then on each failure drops its download. Belongs to the thread of the
/// transactions' context, which waits while the downloads run on the main run loop.
class VLKBlobDownloads {
public:
    struct Service {
        std::string url, appId, email, password;
    };
    /// Failures are added to `errors`, which must outlive this.
    VLKBlobDownloads(Service service, std::vector<NS::Error>& errors);
    ~VLKBlobDownloads();

    /// Schedules a download for each blob attribute of the transactions' objects.
    void schedule(const std::vector<std::shared_ptr<VLKTransaction>>& transactions);
    /// Runs what is scheduled to its end; returns false when it was cancelled.
    bool run();
    /// Ends a `run()` of now or later. Any thread.
    void cancel();

    // Any thread.
    std::int64_t numberOfErrors() const noexcept { return m_numberOfErrors; }
    bool failed() const noexcept;
    std::int64_t totalDownloadCount() const noexcept;
    std::int64_t downloadCount() const noexcept;
    /// Announces changes of "downloadCount".
    NS::Observable& progress() noexcept;

private:
    class Progress;
    struct Download {
        std::shared_ptr<VLKS3Downloader> downloader;
        std::shared_ptr<VLKTransaction> transaction;
        std::string attribute;
    };

    void schedule(const std::shared_ptr<VLKTransaction>& transaction);
    std::shared_ptr<VLKS3Downloader> downloaderFor(const VLKTransaction& transaction, const std::string& attribute) const;
    void startFirst();
    void firstArrived(const NS::Data& content);
    void firstFailed(const NS::Error& error);
    void removeFirst();
    void change(const std::function<void()>& edit);

    const Service m_service;
    const std::shared_ptr<Progress> m_progress;
    const std::shared_ptr<VLKDownloadMailbox> m_mailbox;  // shared with the downloads' blocks, which may outlive this
    std::vector<NS::Error>& m_errors;
    std::atomic<std::int64_t> m_numberOfErrors = 0;
    std::deque<Download> m_pending;  // the first one is running
};

}  // namespace velkor
