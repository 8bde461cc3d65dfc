#include "Sync/VLKCapturedSaves.h"

#include <utility>

namespace velkor {

void VLKCapturedSaves::observe(const std::function<void()>& work) {
    const std::shared_lock lock(m_gate);
    if (!m_closed) work();
}

void VLKCapturedSaves::close() {
    const std::lock_guard lock(m_gate);
    m_closed = true;
}

bool VLKCapturedSaves::add(VLKCapturedSave save) {
    const std::lock_guard lock(m_mutex);
    m_saves.push_back(std::move(save));
    return m_saves.size() == 1;
}

std::vector<VLKCapturedSave> VLKCapturedSaves::takeAll() {
    const std::lock_guard lock(m_mutex);
    return std::exchange(m_saves, {});
}

}  // namespace velkor
