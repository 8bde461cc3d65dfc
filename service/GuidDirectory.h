#pragma once

#include <atomic>
#include <boost/unordered/unordered_flat_map.hpp>
#include <cstdint>
#include <memory_resource>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "service/ObjectState.h"
#include "service/Partition.h"

namespace velkor::service {

/// The objects of one partition in memory: guid to number and back, and the SYNC_HASH of the live ones, kept sorted. It is read
/// from the database once, and again only when another process has changed the partition. One transaction at a time: the one that
/// writes for the partition's user.
class GuidDirectory {
public:
    explicit GuidDirectory(std::int64_t partition) : m_partition(partition) {}

    /// Makes the directory say what the database says of the partition.
    void refresh(Connection& connection, const Partition& partition);
    /// The directory has what this state of the partition holds.
    void markCurrent(const Partition& partition);
    /// From here on the directory is ahead of the database until `markCurrent`; if that never comes, it is read anew.
    void markAhead() { m_current = false; }

    std::optional<std::uint32_t> find(std::string_view guid) const;
    /// The object's number, which is new and `next` counted up when the guid is new.
    std::uint32_t obtain(std::string_view guid, std::int64_t& next);
    std::string_view guid(std::uint32_t object) const { return m_guids[object]; }
    ObjectKind kind(std::uint32_t object) const { return m_kinds[object]; }
    void setKind(std::uint32_t object, ObjectKind kind);

    /// The SYNC_HASH over the live guids.
    const std::string& hash();
    /// The same without some guids and with others; both lists are sorted.
    std::string hash(std::span<const std::string_view> without, std::span<const std::string_view> with);
    /// Every object's number is below this one.
    std::uint32_t end() const { return static_cast<std::uint32_t>(m_guids.size()); }
    /// How many objects there are. Any thread.
    std::size_t size() const { return m_size; }

private:
    void clear();
    void add(std::uint32_t object, std::string_view guid, ObjectKind kind);
    void mergeChanges();

    const std::int64_t m_partition;
    bool m_current = false;
    std::int64_t m_highest = 0, m_epoch = 0, m_nextObject = 0;  // the state of the partition that is in memory

    std::unique_ptr<std::pmr::monotonic_buffer_resource> m_texts;  // of the guids
    std::vector<std::string_view> m_guids;                         // by object; [0] is not used
    std::vector<ObjectKind> m_kinds;                               // by object
    boost::unordered_flat_map<std::string_view, std::uint32_t> m_objects;
    std::atomic<std::size_t> m_size = 0;  // of m_objects

    std::vector<std::string_view> m_live;   // sorted; as of the last merge
    std::vector<std::string_view> m_added;  // live since then, in any order
    bool m_removed = false;                 // something in m_live or m_added is live no more
    std::string m_hash;
};

}  // namespace velkor::service
