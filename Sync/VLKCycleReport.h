#pragma once

#include <cstdint>
#include <optional>

#include "platform/base/Dictionary.h"
#include "platform/base/Error.h"
#include "platform/base/Export.h"

namespace velkor {

/// What the current or latest sync cycle did; begun anew each time a lock is asked for. A value.
struct VELKOR_EXPORT VLKCycleReport {
    /// Transactions that a successful answer acknowledged.
    std::int64_t sent = 0;
    /// Transactions that the service sent and whose writing did not fail; one that replay left out counts, too.
    std::int64_t received = 0;
    /// Listings of known objects sent.
    std::int64_t listings = 0;
    /// Pages of batched downloads that arrived with transactions.
    std::int64_t pages = 0;
    /// Blobs uploaded and confirmed (deletions do not count), and blobs downloaded and saved.
    std::int64_t blobsUp = 0;
    std::int64_t blobsDown = 0;
    /// Why the lock was refused; none when it was granted or is still out.
    std::optional<NS::Error> lockError;
    /// The cycle's unlock request has been answered, by success or failure: nothing of the cycle is on its way any more.
    bool unlockAnswered = false;

    /// The same as a dictionary, for observers: "sent", "received", "listings", "pages", "blobsUp", "blobsDown", "lockError" (the
    /// error's text; absent without one), "unlockAnswered".
    NS::Dictionary dictionary() const;
};

}  // namespace velkor
