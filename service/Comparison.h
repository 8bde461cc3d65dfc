#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "service/GuidDirectory.h"
#include "service/Partition.h"
#include "service/Withholding.h"

namespace velkor::service {

/// Compares the guids that an instance lists with the objects of its partition: what to ask it for, what to send it, and what it
/// withholds. In one writing transaction, in time that grows with the listing and the objects.
class Comparison {
public:
    /// The references live longer. The directory is current; storing partition and instance is the caller's.
    Comparison(Connection& connection, Partition& partition, Instance& instance, GuidDirectory& directory)
        : m_connection(connection),
          m_partition(partition),
          m_instance(instance),
          m_directory(directory),
          m_withholding(connection, partition, instance) {}

    /// Takes the list, whose texts live as long, and notes what is sent and asked for under the lock with this serial. What is
    /// sent has a new number.
    void take(std::span<const std::string_view> guids, std::int64_t lockSerial);

    /// The guids to ask for.
    std::span<const std::string_view> unknown() const { return m_unknown; }
    /// How many objects are sent, as the instance's corrections.
    std::int64_t sentCount() const { return static_cast<std::int64_t>(m_sent.size()); }

private:
    void findListed(std::span<const std::string_view> guids);
    void judgeObjects();
    void judgeUnknown(std::int64_t lockSerial);
    void addNews();
    void send();
    /// Whether the instance withholds the guid in this state already.
    bool isWithheld(std::string_view guid, bool listed);

    Connection& m_connection;
    Partition& m_partition;
    Instance& m_instance;
    GuidDirectory& m_directory;
    Withholding m_withholding;
    struct Held {
        bool listed;
        bool still = false;  // this listing confirms it
    };
    std::vector<Withholding::Guid> m_heldTexts;
    boost::unordered_flat_map<std::string_view, Held> m_held;
    std::vector<bool> m_listed;  // by object
    std::vector<std::string_view> m_unknown;
    std::vector<std::uint32_t> m_sent;  // ascending
};

}  // namespace velkor::service
