#pragma once

#include <cstdint>
#include <vector>

#include "json/JSONWriter.h"
#include "service/TransactionWriter.h"

namespace velkor::service {

/// Where reading an instance's news stands: behind the object that was last touched at `touched`.
struct NewsPosition {
    std::int64_t touched = 0;
    std::int64_t row = 0;
};

/// What an instance does not know yet: every object whose transaction or links somebody else changed after its HIGHEST_XACTION,
/// and its own whose lists were overruled, in the order in which they were touched. One transaction's thread.
class NewTransactions {
public:
    NewTransactions(Connection& connection, std::int64_t partition, std::int64_t instance, std::int64_t highest)
        : m_connection(connection),
          m_transactions(connection, partition),
          m_partition(partition),
          m_instance(instance),
          m_highest(highest) {}

    NewsPosition start() const { return {m_highest, 0}; }
    /// Writes up to `most` elements of "new_xactions" and moves the position behind them; how many there were.
    std::int64_t write(JSONWriter& writer, NewsPosition& position, std::int64_t most);
    /// The position behind the first `count` objects.
    NewsPosition skip(std::int64_t count);
    /// Whether there are more than `count` objects.
    bool hasMoreThan(std::int64_t count);

    /// The numbers of all these objects, ascending.
    std::vector<std::uint32_t> objects();

private:
    Connection& m_connection;
    TransactionWriter m_transactions;
    const std::int64_t m_partition, m_instance, m_highest;
};

}  // namespace velkor::service
