#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include "objectstore/ChangeRecord.h"
#include "objectstore/EntityDescription.h"
#include "platform/base/Value.h"

namespace velkor {

/// What capture takes of one save on the saving thread: plain values, for the main thread to make transactions of.
struct VLKCapturedSave {
    struct Change {
        /// Of the controller's own model.
        const NS::EntityDescription* entity;
        NS::Value guid;
        /// The change's row in the store's history; 0: none.
        std::int64_t historySequence = 0;
    };

    std::shared_ptr<const NS::ChangeRecord> record;
    std::vector<Change> inserted;
    std::vector<Change> updated;
    std::vector<Change> deleted;
};

/// Saves on their way from the threads that made them to the main thread, in their order. Any thread.
class VLKCapturedSaves {
public:
    /// Runs the observer's work on the saving thread, unless `close()` was called.
    void observe(const std::function<void()>& work);
    /// Waits for observers that are at work; later ones do nothing.
    void close();
    /// Returns whether it is the first one waiting: the caller then sees to it that the main thread takes them.
    bool add(VLKCapturedSave save);
    std::vector<VLKCapturedSave> takeAll();

private:
    std::shared_mutex m_gate;  // held shared by observers at work
    bool m_closed = false;     // guarded by the gate
    std::mutex m_mutex;
    std::vector<VLKCapturedSave> m_saves;
};

}  // namespace velkor
