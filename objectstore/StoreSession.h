// Between the contexts (objects in memory) and the SQLite file (rows): one borrowed connection. Internal to the object store.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "objectstore/ChangeRecord.h"
#include "objectstore/FetchRequest.h"
#include "objectstore/History.h"
#include "platform/base/Date.h"
#include "platform/base/Result.h"

namespace velkor::NS {

using RowKey = std::int64_t;
/// The version of a row just inserted.
inline constexpr std::int64_t firstVersion = 1;

/// One row: the attributes' values in the entity's order, then for each relationship of the entity, in order, the key of its
/// destination as an integer (to-one; nil when none) or nil (to-many).
struct StoredRow {
    RowKey key = 0;
    std::int64_t version = 0;
    std::vector<Value> values;
};

/// What the history says of every change of a save.
struct SaveStamp {
    Date time;
    std::string author;
};

enum class WriteOutcome { written, changedSince, missing };

/// Used by one thread at a time. Reads outside begin/commit each see the newest committed state; a reader never waits for a
/// writer.
class StoreSession {
public:
    virtual ~StoreSession() = default;  // rolls an open transaction back

    // Reading. Object operands in predicates have been replaced by row keys.
    virtual Result<void> fetch(const FetchRequest& request, const std::function<void(StoredRow&&)>& handle) = 0;
    /// `except`: keys of rows that are not counted; the request has no limit then.
    virtual Result<std::size_t> count(const FetchRequest& request, std::span<const RowKey> except = {}) = 0;
    /// The named attributes' values of each match (to-one relationships: keys), valid during the call only.
    virtual Result<void> project(const FetchRequest& request, std::span<const std::string> names,
                                 const std::function<void(RowKey, std::span<const Value>)>& handle) = 0;
    virtual Result<void> rows(const EntityDescription& entity, std::span<const RowKey> keys,
                              const std::function<void(StoredRow&&)>& handle) = 0;
    /// The links of a to-many relationship of the owners, grouped by owner, one scan.
    virtual Result<void> destinations(const RelationshipDescription& relationship, std::span<const RowKey> owners,
                                      const std::function<void(RowKey owner, RowKey destination)>& handle) = 0;

    // Writing, between begin and commit. A failure leaves the transaction open for rollback.
    virtual Result<void> begin() = 0;
    /// `values` as in StoredRow. `key` 0: the store chooses; else one that reserveKeys gave out, or that of a removed row.
    virtual Result<RowKey> insert(const EntityDescription& entity, RowKey key, std::span<const Value> values,
                                  std::int64_t version = firstVersion) = 0;
    /// Writes the columns whose places in `values` are named by `changed`, if the row still has `expectedVersion` (any when -1);
    /// the row's version goes up by one.
    virtual Result<WriteOutcome> update(const EntityDescription& entity, RowKey key, std::int64_t expectedVersion,
                                        std::span<const std::size_t> changed, std::span<const Value> values) = 0;
    virtual Result<WriteOutcome> remove(const EntityDescription& entity, RowKey key, std::int64_t expectedVersion) = 0;
    /// A link of a many-to-many relationship (either side names it); existing and missing links are no error.
    virtual Result<void> link(const RelationshipDescription& relationship, RowKey owner, RowKey destination) = 0;
    virtual Result<void> unlink(const RelationshipDescription& relationship, RowKey owner, RowKey destination) = 0;
    /// Appends a change to the history if the store keeps one; `values` as in StoredRow, at least the attributes'. Returns its
    /// sequence, 0 without history.
    virtual Result<std::int64_t> appendHistory(const SaveStamp& save, const EntityDescription& entity, RowKey key,
                                               ChangeKind kind, std::span<const Value> values) = 0;
    /// Tells the watches that an object was inserted or deleted, or (updates) which attributes were written.
    virtual void touched(const EntityDescription& entity, ChangeKind kind, std::span<const std::size_t> changedAttributes) = 0;
    virtual Result<void> commit() = 0;
    virtual void rollback() noexcept = 0;

    /// Reserves `count` keys of the entity for good (in a transaction of its own when none is open); returns the first.
    virtual Result<RowKey> reserveKeys(const EntityDescription& entity, std::size_t count) = 0;
};

}  // namespace velkor::NS
