#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <unordered_map>

#include "service/GuidDirectory.h"

namespace velkor::service {

/// The directories of the partitions that were written to lately. The writing transaction's thread only.
class Directories {
public:
    /// The partition's directory, current. It stays valid for this transaction.
    GuidDirectory& current(Connection& connection, const Partition& partition);

private:
    /// Drops the directories that were not used for longest until no more than `mostGuids` guids are held.
    void trim();

    std::list<std::pair<std::int64_t, std::unique_ptr<GuidDirectory>>> m_directories;  // the one used last is first
    std::unordered_map<std::int64_t, decltype(m_directories)::iterator> m_places;
};

}  // namespace velkor::service
