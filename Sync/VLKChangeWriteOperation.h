#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "PelmoLib/VLKMocCreator.h"
#include "Sync/VLKTransaction.h"
#include "platform/base/Array.h"
#include "platform/base/Dictionary.h"
#include "platform/base/Error.h"
#include "platform/base/Exception.h"
#include "platform/base/Export.h"
#include "platform/concurrency/Operation.h"
#include "platform/observation/Observable.h"

namespace velkor {

class VLKBlobDownloads;
class VLKChangeWriteOperation;

/// Author of the contexts with which the engine itself writes: their saves are not changes of the host.
inline constexpr std::string_view VLKSyncAuthor = "velkor-sync";

class VELKOR_EXPORT VLKChangeWriteOperationDelegate {
public:
    virtual ~VLKChangeWriteOperationDelegate() = default;
    /// On the main queue, after the operation's context was saved or rolled back.
    virtual void changeWriteOperationFinishedWritingData(VLKChangeWriteOperation& operation) = 0;
};

/// Writes one answer of the service into the store: replays its "new_xactions" in two passes, downloads the blobs of what it
/// received, then saves, or rolls back after too many failed downloads. `main` runs on a pool thread with a context of its own
/// and waits there for the downloads, which need the main run loop to run. A store that cannot be read is a failure: it rolls
/// back and tells the delegate. Any other exception ends it with a report in the system log and nothing else: no save, no
/// roll-back, no call of the delegate; only the completion block still runs.
class VELKOR_EXPORT VLKChangeWriteOperation : public NS::Operation {
public:
    VLKChangeWriteOperation(NS::Dictionary result, VLKContextCreator contextCreator, std::string velkorSyncURL,
                            std::string userEmail, std::string userPassword, std::string appId);
    ~VLKChangeWriteOperation() override;

    // Set before the operation is queued.
    /// Not owned; must outlive the operation or be taken back.
    void setDelegate(VLKChangeWriteOperationDelegate* delegate) noexcept { m_delegate = delegate; }
    VLKChangeWriteOperationDelegate* delegate() const noexcept { return m_delegate; }
    /// With YES a failed save counts as the operation's failure, and its error is the last of `errors()`. NO at creation.
    void setKeepsEveryChange(bool keeps) noexcept { m_keepsEveryChange = keeps; }

    void main() override;
    /// An operation that waits for a download gives up: it rolls back, without a call of the delegate.
    void cancel() override;

    /// The "transaction" of each entry as a transaction in `ctx()`, in order.
    std::vector<std::shared_ptr<VLKTransaction>> convertJSONToTransactions(const NS::Array& entries) const;

    /// More than five failed blob downloads, a store that could not be read, a creator that gave no context (or, with
    /// `keepsEveryChange`, a failed save). Final once the completion block runs.
    bool failed() const noexcept;
    /// In the order of their occurrence. To be read by the completion block or after it.
    const std::vector<NS::Error>& errors() const noexcept { return m_errors; }
    /// Failed blob downloads so far. Any thread.
    std::int64_t numberOfErrors() const noexcept;

    /// The operation's context; null before `main` made it. Any thread may ask; only the operation uses it.
    std::shared_ptr<NS::ManagedObjectContext> ctx() const;
    /// Blob downloads not yet finished, and scheduled in all. Any thread.
    std::int64_t downloadCount() const noexcept;
    std::int64_t totalDownloadCount() const noexcept;
    /// Announces changes of "downloadCount".
    NS::Observable& progress() noexcept;

    const NS::Dictionary& resultDict() const noexcept { return m_resultDict; }

private:
    void writeAnswer();
    bool makeContext();
    void finishedProcessing();
    /// Ends the operation when the store could not be read.
    void abandon(const NS::Error& error);
    void failWith(const NS::Error& storeError);
    void tellDelegate();
    void report(const NS::Exception& exception) const;

    // Fixed at creation.
    const NS::Dictionary m_resultDict;
    const NS::Array m_jsonData;
    const VLKContextCreator m_ctxCreator;
    std::atomic<VLKChangeWriteOperationDelegate*> m_delegate = nullptr;
    std::atomic<bool> m_keepsEveryChange = false;

    mutable std::mutex m_mutex;  // guards m_ctx, which only the operation's own thread sets
    std::shared_ptr<NS::ManagedObjectContext> m_ctx;
    std::atomic<bool> m_storeFailed = false;
    std::vector<NS::Error> m_errors;  // the operation's thread
    const std::unique_ptr<VLKBlobDownloads> m_downloads;
};

}  // namespace velkor
