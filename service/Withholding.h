#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "service/GuidDirectory.h"
#include "service/Partition.h"

namespace velkor::service {

/// The guids over which an instance and the service agree to differ until they change: such as the instance lists and cannot
/// send, and such as it was sent and does not keep. They are neither asked for nor sent again, and the instance's SYNC_HASH
/// counts them as it listed them. In one writing transaction.
class Withholding {
public:
    struct Guid {
        std::string text;
        bool listed;  // by the instance
    };

    /// The references live longer; storing the instance is the caller's.
    Withholding(Connection& connection, const Partition& partition, Instance& instance)
        : m_connection(connection), m_partition(partition), m_instance(instance) {}

    std::vector<Guid> guids();
    void add(std::string_view guid, bool listed);
    void remove(std::string_view guid);

    /// The guids that the instance was asked for under this lock, as a JSON array; empty without any.
    std::string asked(std::int64_t lockSerial);
    void setAsked(std::int64_t lockSerial, std::string_view guids);
    /// The request that was to bring them has come: what nobody knows still is withheld.
    void judgeAsked(std::int64_t lockSerial, const GuidDirectory& directory);

    /// Whether `hash` is the instance's SYNC_HASH; the partition's own is current.
    bool isHashCurrent() const { return !m_instance.withholds || m_instance.hashOf == m_partition.hash; }
    void computeHash(GuidDirectory& directory);
    const std::string& hash() const { return m_instance.withholds ? m_instance.hash : m_partition.hash; }

private:
    Connection& m_connection;
    const Partition& m_partition;
    Instance& m_instance;
};

/// Lets go of what any instance withholds of the objects whose transactions have got a number above this one; whether there was
/// any. Instances that were read before are then out of date in `hashOf`.
bool liftWithheld(Connection& connection, std::int64_t partition, std::int64_t above);

}  // namespace velkor::service
