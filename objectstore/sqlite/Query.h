// Fetch requests become SQL. Internal to the object store.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "objectstore/StoreSession.h"
#include "objectstore/sqlite/Connection.h"
#include "objectstore/sqlite/StoreSchema.h"

namespace velkor::NS::sqlite {

/// SQL text with the values of its parameters.
struct Query {
    std::string sql;
    std::vector<Value> arguments;  // integers, reals, texts and data

    /// Binds the arguments, which must outlive the statement's use.
    void bind(Statement& statement) const noexcept;
    /// Adds "IN (...)" for the values (integers or texts only when `asJSON`): parameters for few, one JSON array for many.
    void appendList(std::span<const Value> values, bool asJSON);
};

/// A list of row keys, sorted and without doubles, as a condition on an ordered column.
class KeyCondition {
public:
    explicit KeyCondition(std::span<const RowKey> keys);
    bool empty() const noexcept { return m_keys.empty(); }
    /// Adds the condition. Keys that lie close together become a range: then the rows must come in the column's order and
    /// accepts() tells which of them are meant.
    void append(Query& query, std::string_view column);
    bool accepts(RowKey key) noexcept;

private:
    std::vector<RowKey> m_keys;
    bool m_range = false;
    std::size_t m_next = 0;
};

/// Adds what follows SELECT ... FROM table: the predicate, the order and the limit. Fails for unknown names and operands that the
/// store cannot compare.
Result<void> appendRequest(Query& query, const FetchRequest& request, const EntityTable& table, bool ordered);

}  // namespace velkor::NS::sqlite
