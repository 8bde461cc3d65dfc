#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "service/GuidDirectory.h"

namespace velkor::service {

/// The directories of the partitions that were written to lately. Any thread.
class Directories {
public:
    /// The partition's directory, current: for the transaction that writes for the partition's user.
    std::shared_ptr<GuidDirectory> current(Connection& connection, const Partition& partition);

private:
    std::shared_ptr<GuidDirectory> obtain(std::int64_t partition);
    /// Drops the directories that were not used for longest until no more than `mostGuids` guids are held.
    void trim();

    std::mutex m_mutex;  // guards the rest, but not what is in the directories
    std::list<std::pair<std::int64_t, std::shared_ptr<GuidDirectory>>> m_directories;  // the one used last is first
    std::unordered_map<std::int64_t, decltype(m_directories)::iterator> m_places;
};

}  // namespace velkor::service
