#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "json/JSONWriter.h"
#include "service/ObjectState.h"
#include "service/Partition.h"
#include "service/Relations.h"

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
        : m_connection(connection), m_partition(partition), m_instance(instance), m_highest(highest) {}

    NewsPosition start() const { return {m_highest, 0}; }
    /// Writes up to `most` elements of "new_xactions" and moves the position behind them; how many there were.
    std::int64_t write(JSONWriter& writer, NewsPosition& position, std::int64_t most);
    /// The position behind the first `count` objects.
    NewsPosition skip(std::int64_t count);
    /// Whether there are more than `count` objects.
    bool hasMoreThan(std::int64_t count);

private:
    void writeTransaction(JSONWriter& writer, const std::string& body, const ObjectState& state, const std::string& links);
    bool writeComputed(std::string& out, const std::string& body, const std::string& links);
    std::string guidOf(std::uint32_t object);

    Connection& m_connection;
    const std::int64_t m_partition, m_instance, m_highest;
    std::optional<Relations> m_relations;  // read when first needed
};

}  // namespace velkor::service
