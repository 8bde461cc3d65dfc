#include "service/Directories.h"

namespace velkor::service {
namespace {

constexpr std::size_t mostGuids = 4'000'000;  // about 100 bytes each

}  // namespace

GuidDirectory& Directories::current(Connection& connection, const Partition& partition) {
    if (auto found = m_places.find(partition.id); found != m_places.end()) {
        m_directories.splice(m_directories.begin(), m_directories, found->second);
    } else {
        trim();
        m_directories.emplace_front(partition.id, std::make_unique<GuidDirectory>(partition.id));
        m_places.emplace(partition.id, m_directories.begin());
    }
    GuidDirectory& directory = *m_directories.front().second;
    directory.refresh(connection, partition);
    return directory;
}

void Directories::trim() {
    std::size_t held = 0;
    for (auto at = m_directories.begin(); at != m_directories.end();) {
        held += at->second->size();
        if (held <= mostGuids) {
            ++at;
            continue;
        }
        m_places.erase(at->first);
        at = m_directories.erase(at);
    }
}

}  // namespace velkor::service
