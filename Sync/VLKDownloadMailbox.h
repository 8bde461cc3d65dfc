#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/base/Data.h"
#include "platform/base/Result.h"

namespace velkor {

class VLKS3Downloader;

/// Takes what blob downloads bring, on the thread where they bring it, to the operation that waits for it on its own thread. Any
/// thread.
class VLKDownloadMailbox {
public:
    struct Letter {
        std::weak_ptr<VLKS3Downloader> sender;
        NS::Result<NS::Data> content;
    };

    /// Once the mailbox is closed the letter is dropped.
    void leave(Letter letter);
    /// Waits for the next letter; none once the mailbox is closed.
    std::optional<Letter> next();
    /// Wakes who waits.
    void close();

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    // Guarded by the mutex.
    std::deque<Letter> m_letters;
    bool m_closed = false;
};

}  // namespace velkor
