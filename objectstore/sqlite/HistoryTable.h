// The persistent history in its table. Internal to the object store.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "objectstore/History.h"
#include "objectstore/sqlite/Connection.h"
#include "objectstore/sqlite/KeyCounter.h"
#include "objectstore/sqlite/StoreLayout.h"

namespace velkor::NS::sqlite {

/// A counter of the history's sequence numbers.
KeyCounter historyCounter() noexcept;

/// Rows above `sequence`, oldest first. A kept value of a class or attribute that the model has lost comes as it is stored.
Result<void> readHistory(Connection& connection, const StoreLayout& layout, const ManagedObjectModel& model,
                         std::int64_t sequence, const std::function<void(HistoryRow&&)>& handle);

/// Removes rows up to and including `sequence`, within the caller's transaction.
Result<void> purgeHistoryRows(Connection& connection, std::int64_t sequence);

}  // namespace velkor::NS::sqlite
