#include "Sync/VLKHistoryRecovery.h"

#include <algorithm>
#include <unordered_map>
#include <utility>

#include "PelmoLib/VLKSyncableObject.h"
#include "PelmoLib/encodings/VLKLog.h"
#include "Sync/VLKChangeWriteOperation.h"
#include "Sync/VLKSyncableKind.h"

namespace velkor {

void VLKNumberRanges::insert(std::int64_t number) {
    auto next = m_lastByFirst.upper_bound(number);
    if (next != m_lastByFirst.begin()) {
        const auto before = std::prev(next);
        if (number <= before->second) return;
        if (number == before->second + 1) {
            before->second = number;
            if (next != m_lastByFirst.end() && next->first == number + 1) {
                before->second = next->second;
                m_lastByFirst.erase(next);
            }
            return;
        }
    }
    if (next != m_lastByFirst.end() && next->first == number + 1) {
        const std::int64_t last = next->second;
        next = m_lastByFirst.erase(next);
        m_lastByFirst.emplace_hint(next, number, last);
        return;
    }
    m_lastByFirst.emplace_hint(next, number, number);
}

bool VLKNumberRanges::contains(std::int64_t first, std::int64_t last) const {
    const auto next = m_lastByFirst.upper_bound(first);
    return next != m_lastByFirst.begin() && last <= std::prev(next)->second;
}

void VLKNumberRanges::removeUpTo(std::int64_t number) {
    while (!m_lastByFirst.empty() && m_lastByFirst.begin()->first <= number) {
        const std::int64_t last = m_lastByFirst.begin()->second;
        m_lastByFirst.erase(m_lastByFirst.begin());
        if (last > number) m_lastByFirst.emplace(number + 1, last);
    }
}

NS::Result<std::unique_ptr<VLKHistoryRecovery>> VLKHistoryRecovery::begin(
    std::shared_ptr<NS::PersistentStoreCoordinator> coordinator) {
    if (!coordinator->keepsHistory()) {
        std::vector<std::string> kept{std::string(VLKSyncableMember::guid), std::string(VLKSyncableMember::expired),
                                      std::string(VLKSyncableMember::doNotSynchronize)};
        if (auto enabled = coordinator->enableHistory(std::move(kept)); !enabled) return enabled.error();
    }
    return std::unique_ptr<VLKHistoryRecovery>(new VLKHistoryRecovery(std::move(coordinator)));
}

void VLKHistoryRecovery::restartAfter(std::int64_t token) {
    const auto newest = m_coordinator->newestHistorySequence();
    // A token from beyond the history belongs to another store file: this one's rows have all to be looked at.
    m_lookedAt = newest && newest.value() < token ? 0 : token;
    m_forgotten = m_lookedAt;
    m_captured = {};
}

void VLKHistoryRecovery::captured(std::int64_t sequence) {
    if (sequence > m_lookedAt) m_captured.insert(sequence);
}

NS::Result<std::vector<VLKHistoryRecovery::Change>> VLKHistoryRecovery::newChanges() {
    std::unordered_map<std::string, Change> latest;
    VLKSyncableKinds kinds;
    std::int64_t lookedAt = m_lookedAt;
    const auto isOurs = [&](const NS::HistoryHead& rows) {
        lookedAt = rows.last;
        const std::int64_t first = std::max(rows.first, m_lookedAt + 1);
        return rows.marked && rows.author != VLKSyncAuthor && !m_captured.contains(first, rows.last);
    };
    const auto take = [&](NS::HistoryRow&& row) {
        if (m_captured.contains(row.sequence)) return;
        const NS::EntityDescription* entity = m_coordinator->managedObjectModel().entityNamed(row.entityName);
        if (!entity || !kinds.of(*entity).syncable()) return;
        const NS::Value& guid = row.kept[VLKSyncableMember::guid];
        if (!guid.isString()) {
            VLKLog::sharedInstance().logMessageAtLevel(100, "Object of type: %@ is syncable but has no GUID.",
                                                       entity->managedObjectClassName());
            return;
        }
        // What was left out of sync when it was deleted is unknown to the service.
        if (row.kind == NS::ChangeKind::deleted && kinds.of(*entity).excludesFromCapture(row.kept)) {
            latest.erase(guid.stringOr(""));
            return;
        }
        latest.insert_or_assign(guid.stringOr(""), Change{entity, guid, row.kind, row.sequence, row.time});
    };
    if (const auto read = m_coordinator->historyAfter(m_lookedAt, take, isOurs); !read) return read.error();
    m_lookedAt = lookedAt;
    m_captured.removeUpTo(m_lookedAt);

    std::vector<Change> changes;
    changes.reserve(latest.size());
    for (auto& [guid, change] : latest) changes.push_back(std::move(change));
    std::sort(changes.begin(), changes.end(), [](const Change& a, const Change& b) { return a.sequence < b.sequence; });
    return changes;
}

NS::Result<void> VLKHistoryRecovery::skipAll() {
    const auto newest = m_coordinator->newestHistorySequence();
    if (!newest) return newest.error();
    m_lookedAt = std::max(m_lookedAt, newest.value());
    m_captured.removeUpTo(m_lookedAt);
    return {};
}

std::int64_t VLKHistoryRecovery::token(std::optional<std::int64_t> oldestPending) const {
    return oldestPending ? std::min(*oldestPending - 1, m_lookedAt) : m_lookedAt;
}

void VLKHistoryRecovery::forgetUpTo(std::int64_t token) {
    if (token <= m_forgotten) return;
    if (auto purged = m_coordinator->purgeHistory(token); !purged) {
        VLKLog::sharedInstance().logMessageAtLevel(100, "Unable to purge the store's history: %@", purged.error());
        return;
    }
    m_forgotten = token;
}

}  // namespace velkor
