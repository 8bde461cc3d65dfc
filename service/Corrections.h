#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "json/JSONWriter.h"
#include "service/NewTransactions.h"
#include "service/Partition.h"

namespace velkor::service {

/// The objects that the answer to an instance's latest listing sends. A guid that the next listing misses again although the
/// answer was written is one that the instance does not keep.
class Corrections {
public:
    Corrections(Connection& connection, std::int64_t partition, std::int64_t instance)
        : m_connection(connection), m_transactions(connection, partition), m_base(partition << 32), m_instance(instance) {}

    /// Ascending numbers of objects.
    std::vector<std::uint32_t> objects();
    void replace(std::span<const std::uint32_t> objects);
    /// A changes request with this HIGHEST_XACTION has come; the first one under its lock, or a later one.
    static void noteRequest(Connection& connection, Instance& instance, std::int64_t highest, bool first);

    NewsPosition start() const { return {}; }
    /// Writes up to `most` elements of "new_xactions", in the order of the objects, and moves the position behind them.
    void write(JSONWriter& writer, NewsPosition& position, std::int64_t most);
    /// The position behind the first `count` objects.
    NewsPosition skip(std::int64_t count);

private:
    Connection& m_connection;
    TransactionWriter m_transactions;
    const std::int64_t m_base, m_instance;
};

}  // namespace velkor::service
