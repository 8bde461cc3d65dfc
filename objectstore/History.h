#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "objectstore/ChangeRecord.h"
#include "platform/base/Date.h"
#include "platform/base/Dictionary.h"

namespace velkor::NS {

/// What changes that follow one another in the history of one save have in common.
struct HistoryHead {
    std::int64_t first = 0;  // their sequence numbers
    std::int64_t last = 0;
    Date time;
    std::string author;
    std::string process;
    bool marked = true;
};

/// One changed object of one save, as the persistent history keeps it.
struct HistoryRow {
    std::int64_t sequence = 0;  // rises by at least one a row; never used twice
    Date time;
    std::string entityName;
    std::int64_t key = 0;
    ChangeKind kind = ChangeKind::updated;
    /// Author of the context that saved; empty unless set.
    std::string author;
    /// The saving process; unique for each opening of the store.
    std::string process;
    /// The store's history mark when the save was made (see PersistentStoreCoordinator::setHistoryMark).
    bool marked = true;
    /// The object's values of the kept attributes, as far as it has them: the values saved, or the last ones of a deleted object.
    Dictionary kept;
};

}  // namespace velkor::NS
