#include "service/NewTransactions.h"

namespace velkor::service {
namespace {

// 32 and more in "state": the lists were overruled.
constexpr Sql readNews{
    "SELECT id, touched, state, body, links FROM objects WHERE partition_id = :partition AND touched >= :touched "
    "AND (touched > :touched OR id > :row) AND number > 0 AND ((number > :highest AND (instance <> :instance "
    "OR state >= 32)) OR (link_instance <> :instance AND link_number > :highest) OR (link_instance = :instance "
    "AND link_other > :highest)) ORDER BY touched, id LIMIT :most",
    "iiiiii:iiitt"};
constexpr Sql findPlace{
    "SELECT touched, id FROM objects WHERE partition_id = :partition AND touched >= :touched AND (touched > "
    ":touched OR id > :row) AND number > 0 AND ((number > :highest AND (instance <> :instance OR state >= 32)) "
    "OR (link_instance <> :instance AND link_number > :highest) OR (link_instance = :instance AND link_other > "
    ":highest)) ORDER BY touched, id LIMIT 1 OFFSET :before",
    "iiiiii:ii"};
constexpr Sql readObjects{
    "SELECT id FROM objects WHERE partition_id = :partition AND touched > :highest AND number > 0 AND ((number > :highest AND "
    "(instance <> :instance OR state >= 32)) OR (link_instance <> :instance AND link_number > :highest) OR (link_instance = "
    ":instance AND link_other > :highest)) ORDER BY id",
    "iii:i"};

}  // namespace

std::int64_t NewTransactions::write(JSONWriter& writer, NewsPosition& position, std::int64_t most) {
    std::int64_t count = 0;
    auto rows = m_connection.query(readNews, m_partition, position.touched, position.row, m_highest, m_instance, most);
    for (; rows.next(); ++count) {
        position = {rows.integer(1), rows.integer(0)};
        m_transactions.write(writer, rows.text(3), ObjectState::of(rows.integer(2)), rows.text(4));
    }
    return count;
}

NewsPosition NewTransactions::skip(std::int64_t count) {
    if (count == 0) return start();
    const auto from = start();
    auto rows = m_connection.query(findPlace, m_partition, from.touched, from.row, m_highest, m_instance, count - 1);
    if (!rows.next()) return {INT64_MAX, 0};
    return {rows.integer(0), rows.integer(1)};
}

bool NewTransactions::hasMoreThan(std::int64_t count) {
    const auto from = start();
    return m_connection.query(findPlace, m_partition, from.touched, from.row, m_highest, m_instance, count).next();
}

std::vector<std::uint32_t> NewTransactions::objects() {
    std::vector<std::uint32_t> objects;
    auto rows = m_connection.query(readObjects, m_partition, m_highest, m_instance);
    while (rows.next()) objects.push_back(static_cast<std::uint32_t>(rows.integer(0)));
    return objects;
}

}  // namespace velkor::service
