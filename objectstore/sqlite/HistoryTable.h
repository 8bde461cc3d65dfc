// The persistent history in its table: a row holds changes that follow one another in one save. Internal to the object store.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string_view>

#include "objectstore/History.h"
#include "objectstore/StoreSession.h"
#include "objectstore/sqlite/Connection.h"
#include "objectstore/sqlite/KeyCounter.h"
#include "objectstore/sqlite/StoreLayout.h"
#include "platform/base/Array.h"

namespace velkor::NS::sqlite {

/// A counter of the history's sequence numbers.
KeyCounter historyCounter() noexcept;

/// Changes on their way into one row.
class HistoryRun {
public:
    /// Many in one row make a large save cheap; a purge that ends within a row writes the rest of it again.
    static constexpr std::int64_t mostChanges = 256;

    bool empty() const noexcept { return m_count == 0; }
    /// Whether a change of this save, made under this mark, can follow the others.
    bool takes(const SaveStamp& save, bool marked) const noexcept;
    void add(std::int64_t sequence, const SaveStamp& save, bool marked, const StoreLayout::HistoryEntity& entity, RowKey key,
             ChangeKind kind, std::span<const Value> values);
    /// Writes the row and begins anew.
    Result<void> write(Connection& connection, Statement& insert, std::string_view process);
    void clear() noexcept;

    static constexpr std::string_view insertSQL =
        "INSERT INTO history(last,first,time,author,process,marked,changes) VALUES(?,?,?,?,?,?,?)";

private:
    std::int64_t m_first = 0;
    std::int64_t m_count = 0;
    SaveStamp m_save;
    bool m_marked = true;
    Array m_changes;  // four elements each: entity, key, kind, kept values
};

/// Rows above `sequence`, oldest first, of the runs that are wanted (without a question: all). A kept value of a class or
/// attribute that the model has lost comes as it is stored.
Result<void> readHistory(Connection& connection, const ManagedObjectModel& model, std::int64_t sequence,
                         const std::function<void(HistoryRow&&)>& handle, const std::function<bool(const HistoryHead&)>& wanted);

/// Removes rows up to and including `sequence`, within the caller's transaction.
Result<void> purgeHistoryRows(Connection& connection, std::int64_t sequence);

}  // namespace velkor::NS::sqlite
