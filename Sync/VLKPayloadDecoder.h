#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "Sync/VLKTransaction.h"
#include "platform/concurrency/OperationQueue.h"

namespace velkor {

/// Decodes the payloads of received transactions on the shared pool, slice by slice, ahead of the thread that replays them. What
/// the pool has not begun when it is needed, that thread decodes itself; so it never waits for a free pool thread.
class VLKPayloadDecoder {
public:
    /// `transactions` must outlive the decoder.
    explicit VLKPayloadDecoder(const std::vector<std::shared_ptr<VLKTransaction>>& transactions);

    /// Returns when the payload of the transaction at `index` is decoded. Called by one thread, with rising indices.
    void require(std::size_t index);

private:
    enum class State : std::uint8_t { open, taken, done };
    void decode(std::size_t slice);
    void decodeAhead();
    void startHelper();

    const std::vector<std::shared_ptr<VLKTransaction>>& m_transactions;
    std::size_t m_required = SIZE_MAX;  // the slice that the replay is at

    std::mutex m_mutex;  // guards what follows
    std::condition_variable m_decoded;
    std::vector<State> m_slices;
    std::size_t m_next = 0;   // slices before it are not open
    std::size_t m_limit = 0;  // the helpers go no further, to bound memory
    bool m_helping = false;

    NS::OperationQueue m_queue;  // the last member: its end waits for the helpers
};

}  // namespace velkor
