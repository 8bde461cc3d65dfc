#include "service/GuidDirectory.h"

#include <algorithm>
#include <iterator>

#include "PelmoLib/encodings/GuidOrder.h"

namespace velkor::service {
namespace {

constexpr Sql readObjects{"SELECT id, guid, state FROM objects WHERE partition_id = :partition ORDER BY id", "i:iti"};
constexpr Sql readTouched{"SELECT id, guid, state FROM objects WHERE partition_id = :partition AND touched > :highest", "ii:iti"};
constexpr Sql readNew{"SELECT id, guid, state FROM objects WHERE id >= :first AND id < :end", "ii:iti"};

}  // namespace

void GuidDirectory::refresh(Connection& connection, const Partition& partition) {
    const bool sameNumbers = m_current && m_epoch == partition.epoch;
    if (sameNumbers && m_highest == partition.highest && m_nextObject == partition.nextObject) return;
    m_current = false;
    const auto base = m_partition << 32;
    auto take = [&](Rows rows) {
        while (rows.next()) {
            const auto object = static_cast<std::uint32_t>(rows.integer(0));
            const auto kind = ObjectState::of(rows.integer(2)).kind;
            if (object < m_guids.size() && !m_guids[object].empty()) {
                setKind(object, kind);
            } else {
                add(object, rows.text(1), kind);
            }
        }
    };
    if (sameNumbers) {
        take(connection.query(readNew, base + m_nextObject, base + (std::int64_t(1) << 32)));
        take(connection.query(readTouched, m_partition, m_highest));
    } else {
        clear();
        take(connection.query(readObjects, m_partition));
    }
    markCurrent(partition);
}

void GuidDirectory::markCurrent(const Partition& partition) {
    m_current = true;
    m_highest = partition.highest;
    m_epoch = partition.epoch;
    m_nextObject = partition.nextObject;
}

std::optional<std::uint32_t> GuidDirectory::find(std::string_view guid) const {
    auto found = m_objects.find(guid);
    if (found == m_objects.end()) return std::nullopt;
    return found->second;
}

std::uint32_t GuidDirectory::obtain(std::string_view guid, std::int64_t& next) {
    if (auto found = m_objects.find(guid); found != m_objects.end()) return found->second;
    const auto object = static_cast<std::uint32_t>(next++);
    add(object, guid, ObjectKind::unknown);
    return object;
}

void GuidDirectory::setKind(std::uint32_t object, ObjectKind kind) {
    const bool was = isLive(m_kinds[object]), is = isLive(kind);
    m_kinds[object] = kind;
    if (was == is) return;
    if (is) {
        m_added.push_back(m_guids[object]);
    } else {
        m_removed = true;
    }
    m_hash.clear();
}

const std::string& GuidDirectory::hash() {
    if (m_hash.empty()) {
        mergeChanges();
        m_hash = syncHashOfSortedGuids(m_live);
    }
    return m_hash;
}

std::string GuidDirectory::hash(std::span<const std::string_view> without, std::span<const std::string_view> with) {
    mergeChanges();
    std::vector<std::string_view> rest, all;
    rest.reserve(m_live.size());
    std::set_difference(m_live.begin(), m_live.end(), without.begin(), without.end(), std::back_inserter(rest), GuidLess());
    all.reserve(rest.size() + with.size());
    std::set_union(rest.begin(), rest.end(), with.begin(), with.end(), std::back_inserter(all), GuidLess());
    return syncHashOfSortedGuids(all);
}

void GuidDirectory::clear() {
    m_texts = std::make_unique<std::pmr::monotonic_buffer_resource>();
    m_guids.clear();
    m_kinds.clear();
    m_objects.clear();
    m_size = 0;
    m_live.clear();
    m_added.clear();
    m_removed = false;
    m_hash.clear();
}

void GuidDirectory::add(std::uint32_t object, std::string_view guid, ObjectKind kind) {
    if (!m_texts) m_texts = std::make_unique<std::pmr::monotonic_buffer_resource>();
    char* bytes = static_cast<char*>(m_texts->allocate(guid.size(), 1));
    guid.copy(bytes, guid.size());
    if (object >= m_guids.size()) {
        const std::size_t size = std::max<std::size_t>(object + 1, m_guids.size() + m_guids.size() / 2);
        m_guids.resize(size);
        m_kinds.resize(size, ObjectKind::unknown);
    }
    m_guids[object] = {bytes, guid.size()};
    m_objects.emplace(m_guids[object], object);
    m_size = m_objects.size();
    setKind(object, kind);
}

void GuidDirectory::mergeChanges() {
    if (m_removed) {
        auto isDead = [&](std::string_view guid) { return !isLive(m_kinds[m_objects.find(guid)->second]); };
        std::erase_if(m_live, isDead);
        std::erase_if(m_added, isDead);
        m_removed = false;
    }
    if (m_added.empty()) return;
    sortUniqueGuids(m_added);
    const auto middle = static_cast<std::ptrdiff_t>(m_live.size());
    m_live.insert(m_live.end(), m_added.begin(), m_added.end());
    if (middle > 0) std::inplace_merge(m_live.begin(), m_live.begin() + middle, m_live.end(), GuidLess());
    m_live.erase(std::unique(m_live.begin(), m_live.end()), m_live.end());
    m_added.clear();
}

}  // namespace velkor::service
