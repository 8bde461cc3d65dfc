#include "Sync/VLKPayloadDecoder.h"

#include <algorithm>

namespace velkor {

namespace {
constexpr std::size_t sliceLength = 128;
/// Slices that the helper may be ahead of the replay.
constexpr std::size_t window = 16;
}  // namespace

VLKPayloadDecoder::VLKPayloadDecoder(const std::vector<std::shared_ptr<VLKTransaction>>& transactions)
    : m_transactions(transactions), m_slices((transactions.size() + sliceLength - 1) / sliceLength, State::open) {}

void VLKPayloadDecoder::require(std::size_t index) {
    const std::size_t slice = index / sliceLength;
    if (slice == m_required) return;
    m_required = slice;
    std::unique_lock lock(m_mutex);
    if (m_slices[slice] == State::open) {
        m_slices[slice] = State::taken;
        m_next = std::max(m_next, slice + 1);
        startHelper();
        lock.unlock();
        decode(slice);
        return;
    }
    startHelper();
    m_decoded.wait(lock, [&] { return m_slices[slice] == State::done; });
}

/// With the mutex held.
void VLKPayloadDecoder::startHelper() {
    m_limit = std::min(m_required + window, m_slices.size());
    if (m_helping || m_next >= m_limit) return;
    m_helping = true;
    m_queue.addOperation([this] { decodeAhead(); });
}

void VLKPayloadDecoder::decodeAhead() {
    std::unique_lock lock(m_mutex);
    while (m_next < m_limit) {
        const std::size_t slice = m_next++;
        m_slices[slice] = State::taken;
        lock.unlock();
        decode(slice);
        lock.lock();
        m_slices[slice] = State::done;
        m_decoded.notify_one();
    }
    m_helping = false;
}

void VLKPayloadDecoder::decode(std::size_t slice) {
    const std::size_t end = std::min(m_transactions.size(), (slice + 1) * sliceLength);
    for (std::size_t i = slice * sliceLength; i < end; ++i) m_transactions[i]->decodePayloadAhead();
}

}  // namespace velkor
