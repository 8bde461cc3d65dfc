#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "json/JSONWriter.h"
#include "service/ObjectState.h"
#include "service/Partition.h"
#include "service/Relations.h"

namespace velkor::service {

/// Writes objects' rows as elements of "new_xactions". One transaction's thread.
class TransactionWriter {
public:
    TransactionWriter(Connection& connection, std::int64_t partition) : m_connection(connection), m_partition(partition) {}

    /// The object's latest transaction as it came, with the graph's links where they differ from the payload's lists.
    void write(JSONWriter& writer, const std::string& body, const ObjectState& state, const std::string& links);

private:
    void writeBody(JSONWriter& writer, const std::string& body, const ObjectState& state, const std::string& links);
    bool writeComputed(std::string& out, const std::string& body, const std::string& links);
    std::string guidOf(std::uint32_t object);

    Connection& m_connection;
    const std::int64_t m_partition;
    std::optional<Relations> m_relations;  // read when first needed
};

}  // namespace velkor::service
