#include "service/Directories.h"

namespace velkor::service {
namespace {

constexpr std::size_t mostGuids = 4'000'000;  // about 100 bytes each
constexpr std::size_t emptyDirectory = 20;    // guids' worth of memory

}  // namespace

std::shared_ptr<GuidDirectory> Directories::current(Connection& connection, const Partition& partition) {
    auto directory = obtain(partition.id);
    directory->refresh(connection, partition);
    return directory;
}

std::shared_ptr<GuidDirectory> Directories::obtain(std::int64_t partition) {
    std::lock_guard guard(m_mutex);
    if (auto found = m_places.find(partition); found != m_places.end()) {
        m_directories.splice(m_directories.begin(), m_directories, found->second);
    } else {
        trim();
        m_directories.emplace_front(partition, std::make_shared<GuidDirectory>(partition));
        m_places.emplace(partition, m_directories.begin());
    }
    return m_directories.front().second;
}

void Directories::trim() {
    std::size_t held = 0;
    for (auto at = m_directories.begin(); at != m_directories.end();) {
        held += emptyDirectory + at->second->size();
        if (held <= mostGuids) {
            ++at;
            continue;
        }
        m_places.erase(at->first);
        at = m_directories.erase(at);
    }
}

}  // namespace velkor::service
