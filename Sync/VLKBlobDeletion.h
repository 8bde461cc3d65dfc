#pragma once

#include <memory>
#include <vector>

#include "Sync/VLKSyncProperties.h"

namespace velkor {

class VLKS3Deleter;

/// Runs deletions of blobs one at a time, from the end of the list towards its start, until one fails. The running one keeps it
/// alive. Main thread.
class VLKBlobDeletion : public std::enable_shared_from_this<VLKBlobDeletion> {
public:
    /// The callback is told once: of the end of the list, or of the first failure.
    VLKBlobDeletion(std::vector<std::shared_ptr<VLKS3Deleter>> deleters, VLKResultCallback callback);
    ~VLKBlobDeletion();

    void start();
    /// Ends it without a word.
    void cancel();

private:
    void tell(bool success, const std::optional<NS::Error>& error);

    std::vector<std::shared_ptr<VLKS3Deleter>> m_deleters;  // the last one is running
    VLKResultCallback m_callback;
};

}  // namespace velkor
