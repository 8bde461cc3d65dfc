#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "service/ChangesRequest.h"
#include "service/Directories.h"
#include "service/Locks.h"
#include "service/Partition.h"

namespace velkor::service {

/// The parts of a push in many requests, kept as they came. Only the last part's answer tells of other instances and of the hash,
/// so that nobody misses the objects before; taken in together they cost a fraction of a commit for each part, which would touch
/// pages all across the tables. Whoever reads or changes the partition's objects in a writing transaction takes them in first.
class KeptParts {
public:
    /// Both references live longer.
    KeptParts(Connection& connection, Partition& partition) : m_connection(connection), m_partition(partition) {}

    bool empty() const { return m_partition.keptParts == 0; }
    /// Whether a part of that instance may be kept as well. Otherwise what is kept is to be taken in.
    bool mayKeep(const Instance& instance, std::string_view json) const;
    /// Keeps the part, which is what is provisional from now on.
    void keep(const Instance& instance, const ChangesRequest& part, std::int64_t highest, std::string_view json,
              const Lock& lock);
    /// Whether what is provisional is a part that names the guid.
    bool isProvisional(std::string_view guid) const;
    /// Takes in all that is kept, as if each part had been taken in when it came: if the last one is provisional, it stays so.
    /// The directory is the partition's, current, and ahead of the database from here on.
    void takeIn(GuidDirectory& directory);
    /// The same with the partition's directory, if anything is kept.
    void takeIn(Directories& directories);

private:
    Connection& m_connection;
    Partition& m_partition;
};

}  // namespace velkor::service
