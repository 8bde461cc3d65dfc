#include "Sync/VLKDownloadMailbox.h"

#include <utility>

namespace velkor {

void VLKDownloadMailbox::leave(Letter letter) {
    const std::lock_guard lock(m_mutex);
    if (m_closed) return;
    m_letters.push_back(std::move(letter));
    m_changed.notify_one();
}

std::optional<VLKDownloadMailbox::Letter> VLKDownloadMailbox::next() {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return m_closed || !m_letters.empty(); });
    if (m_closed) return std::nullopt;
    Letter letter = std::move(m_letters.front());
    m_letters.pop_front();
    return letter;
}

void VLKDownloadMailbox::close() {
    const std::lock_guard lock(m_mutex);
    m_closed = true;
    m_letters.clear();
    m_changed.notify_all();
}

}  // namespace velkor
