#include "service/KeptParts.h"

#include <deque>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/base/UTF8.h"
#include "service/BatchIntake.h"
#include "service/BatchRecord.h"

namespace velkor::service {
namespace {

constexpr std::int64_t mostKept = 128 << 20;  // bytes; taking them in needs several times as much memory

// "place" is how many bytes are kept up to the end of the part.
constexpr Sql keepPart{
    "INSERT INTO parts (partition_id, place, instance, highest, body) VALUES (:partition, :place, :instance, :highest, :body)",
    "iiiit:"};
constexpr Sql readParts{"SELECT instance, highest, body FROM parts WHERE partition_id = :partition ORDER BY place", "i:iit"};
constexpr Sql findKeeper{"SELECT instance FROM parts WHERE partition_id = :partition LIMIT 1", "i:i"};
constexpr Sql dropParts{"DELETE FROM parts WHERE partition_id = :partition", "i:"};
// All guids of a kept part are in its record.
constexpr Sql findNamed{"SELECT guid FROM repeats WHERE partition_id = :partition AND guid = :guid", "it:t"};
constexpr Sql noteAbove{"UPDATE batches SET above = :above WHERE partition_id = :partition", "ii:"};

struct Part {
    std::string body;
    std::int64_t highest = 0;
    std::optional<ChangesRequest> request;  // refers to the body
};

/// Takes parts in by one commit's worth of rows. Their payloads share the bytes that are left.
void takeTogether(Connection& connection, Partition& partition, Instance& instance, GuidDirectory& directory,
                  std::span<Part*> parts, std::size_t& bytesLeft) {
    BatchIntake intake(connection, partition, instance, directory);
    for (Part* part : parts) {
        part->request->readRelationships(bytesLeft);
        intake.take(part->request->transactions(), part->highest);
    }
    intake.store();
}

}  // namespace

bool KeptParts::mayKeep(const Instance& instance, std::string_view json) const {
    if (m_partition.keptParts + static_cast<std::int64_t>(json.size()) > mostKept) return false;
    if (json.find('\0') != json.npos || !NS::isValidUTF8(json) || instance.hasRolled(m_connection)) return false;
    if (empty()) return true;
    auto rows = m_connection.query(findKeeper, m_partition.id);
    return rows.next() && rows.integer(0) == instance.id;
}

void KeptParts::keep(const Instance& instance, const ChangesRequest& part, std::int64_t highest, std::string_view json,
                     const Lock& lock) {
    m_partition.keptParts += static_cast<std::int64_t>(json.size());
    m_connection.run(keepPart, m_partition.id, m_partition.keptParts, instance.id, highest, json);
    m_partition.provisional = instance.id;
    std::vector<std::string_view> guids;
    for (const auto& transaction : part.transactions()) guids.push_back(transaction.guid());
    recordBatch(m_connection, m_partition.id, lock.serial, instance.id, m_partition.highest, guids);
}

bool KeptParts::isProvisional(std::string_view guid) const {
    return !empty() && m_partition.provisional != 0 && m_connection.query(findNamed, m_partition.id, guid).next();
}

void KeptParts::takeIn(GuidDirectory& directory) {
    if (empty()) return;
    std::deque<Part> parts;
    std::vector<Part*> readable;
    std::int64_t keeper = 0;
    {
        auto rows = m_connection.query(readParts, m_partition.id);
        while (rows.next()) {
            keeper = rows.integer(0);
            Part& part = parts.emplace_back();
            part.highest = rows.integer(1);
            part.body.swap(rows.text(2));
            part.request = ChangesRequest::read(part.body);
            if (part.request) readable.push_back(&part);
        }
    }
    std::size_t bytesLeft = ChangesRequest::mostPayloadBytes(static_cast<std::size_t>(m_partition.keptParts));
    const std::size_t provisional = m_partition.provisional != 0 && !readable.empty() ? 1 : 0;
    m_connection.run(dropParts, m_partition.id);
    m_partition.keptParts = 0;
    m_partition.settle(m_connection);
    const std::span all(readable);
    if (auto instance = Instance::find(m_connection, keeper)) {
        if (all.size() > provisional) {
            takeTogether(m_connection, m_partition, *instance, directory, all.first(all.size() - provisional), bytesLeft);
            m_partition.settle(m_connection);
        }
        if (provisional > 0) takeTogether(m_connection, m_partition, *instance, directory, all.last(provisional), bytesLeft);
        instance->store(m_connection);
    }
    m_connection.run(noteAbove, provisional > 0 ? m_partition.provisionalAbove : m_partition.highest, m_partition.id);
    m_partition.store(m_connection);
}

void KeptParts::takeIn(Directories& directories) {
    if (!empty()) takeIn(*directories.current(m_connection, m_partition));
}

}  // namespace velkor::service
