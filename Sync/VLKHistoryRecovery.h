#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "objectstore/PersistentStoreCoordinator.h"
#include "platform/base/Date.h"
#include "platform/base/Result.h"
#include "platform/base/Value.h"

namespace velkor {

/// Numbers, kept as ranges: what comes mostly in order takes next to no room.
class VLKNumberRanges {
public:
    void insert(std::int64_t number);
    bool contains(std::int64_t number) const { return contains(number, number); }
    /// All numbers from the first to the last.
    bool contains(std::int64_t first, std::int64_t last) const;
    void removeUpTo(std::int64_t number);

private:
    std::map<std::int64_t, std::int64_t> m_lastByFirst;
};

/// Finds in the store's persistent history the changes that capture has not seen: those of other processes, and those that a kill
/// took away before they were kept. Keeps the account of which rows are dealt with. Main thread.
class VLKHistoryRecovery {
public:
    /// The latest change of an object that nobody has filed yet.
    struct Change {
        const NS::EntityDescription* entity = nullptr;
        NS::Value guid;
        NS::ChangeKind kind = NS::ChangeKind::updated;
        std::int64_t sequence = 0;
        NS::Date time;
    };

    /// Begins to keep history in the store, if that is not done yet.
    static NS::Result<std::unique_ptr<VLKHistoryRecovery>> begin(std::shared_ptr<NS::PersistentStoreCoordinator> coordinator);

    /// All rows after the token are to be looked at (again).
    void restartAfter(std::int64_t token);
    /// Capture has this row's change in hand.
    void captured(std::int64_t sequence);
    /// The host's changes in rows not yet looked at, one an object, in the order of their rows: without those in hand, those of
    /// the engine, and those saved while nobody observed. Afterwards these rows have been looked at.
    NS::Result<std::vector<Change>> newChanges();
    /// No row of the history is to be looked at any more.
    NS::Result<void> skipAll();
    /// Up to here no row will be needed again, when `oldestPending` is the oldest row that a transaction still stands for.
    std::int64_t token(std::optional<std::int64_t> oldestPending) const;
    /// Lets the store forget the rows up to the token; only after the token was kept.
    void forgetUpTo(std::int64_t token);

private:
    explicit VLKHistoryRecovery(std::shared_ptr<NS::PersistentStoreCoordinator> coordinator)
        : m_coordinator(std::move(coordinator)) {}

    std::shared_ptr<NS::PersistentStoreCoordinator> m_coordinator;
    std::int64_t m_lookedAt = 0;  // all rows up to this one
    VLKNumberRanges m_captured;   // rows after it that capture has in hand
    std::int64_t m_forgotten = 0;
};

}  // namespace velkor
