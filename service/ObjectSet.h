#pragma once

#include <boost/unordered/unordered_flat_map.hpp>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

#include "service/GuidDirectory.h"

namespace velkor::service {

class IncomingTransaction;

/// An object's row: its latest transaction and its links.
struct ObjectRow {
    std::uint32_t object = 0;
    std::int64_t number = 0;    // of the latest transaction; 0 for an object that others only mention
    std::int64_t touched = 0;   // highest number at which the transaction or a link changed
    std::int64_t instance = 0;  // who wrote the latest transaction
    ObjectState state;
    std::int64_t linkNumber = 0;    // of the last change of a link
    std::int64_t linkInstance = 0;  // who made it
    std::int64_t linkOther = 0;     // the same number among all other instances
    std::string storedBody;         // the transaction in wire form, as it was read
    std::string links;              // LinkText

    bool stored = false;                          // the database has a row
    bool changed = false;                         // the row must be written
    bool linksChanged = false;                    // `links` is older than the graph
    const IncomingTransaction* source = nullptr;  // the latest transaction, if it came now

    /// The latest transaction in wire form.
    std::string body() const;

    /// A link changed with this number.
    void noteLinkChange(std::int64_t number, std::int64_t instance);
};

/// The rows that one writing transaction works with, read when first asked for and written together at the end. What a row was
/// before goes to the table "undo".
class ObjectSet {
public:
    ObjectSet(Connection& connection, std::int64_t partition, std::int64_t firstNewObject)
        : m_connection(connection), m_base(partition << 32), m_partition(partition), m_firstNew(firstNewObject) {}

    /// The row; references stay valid.
    ObjectRow& row(std::uint32_t object);
    void reserve(std::size_t count) { m_places.reserve(count); }
    std::deque<ObjectRow>& rows() { return m_rows; }
    std::int64_t rowId(std::uint32_t object) const { return m_base + object; }

    /// Writes the changed rows.
    void store(const GuidDirectory& directory);

private:
    Connection& m_connection;
    const std::int64_t m_base;
    const std::int64_t m_partition;
    const std::int64_t m_firstNew;
    std::deque<ObjectRow> m_rows;
    boost::unordered_flat_map<std::uint32_t, ObjectRow*> m_places;
};

}  // namespace velkor::service
