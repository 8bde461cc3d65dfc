#include "service/Corrections.h"

namespace velkor::service {
namespace {

constexpr Sql readCorrections{"SELECT object_id FROM corrections WHERE instance = :instance ORDER BY object_id", "i:i"};
constexpr Sql dropCorrections{"DELETE FROM corrections WHERE instance = :instance", "i:"};
constexpr Sql addCorrections{
    "INSERT INTO corrections (instance, object_id) SELECT :instance, id FROM objects WHERE id >= :first AND id <= :last", "iii:"};
constexpr Sql readCorrectedRows{
    "SELECT objects.id, objects.state, objects.body, objects.links FROM corrections JOIN objects ON objects.id = "
    "corrections.object_id WHERE corrections.instance = :instance AND corrections.object_id > :row ORDER BY "
    "corrections.object_id LIMIT :most",
    "iii:iitt"};
constexpr Sql findCorrection{
    "SELECT object_id FROM corrections WHERE instance = :instance ORDER BY object_id LIMIT 1 OFFSET :before", "ii:i"};

}  // namespace

std::vector<std::uint32_t> Corrections::objects() {
    std::vector<std::uint32_t> objects;
    auto rows = m_connection.query(readCorrections, m_instance);
    while (rows.next()) objects.push_back(static_cast<std::uint32_t>(rows.integer(0)));
    return objects;
}

void Corrections::replace(std::span<const std::uint32_t> objects) {
    m_connection.run(dropCorrections, m_instance);
    // A statement for each run of neighbours: what a client lacks, it usually lacks altogether.
    for (std::size_t first = 0, end = 0; first < objects.size(); first = end) {
        for (end = first + 1; end < objects.size() && objects[end] == objects[end - 1] + 1;) ++end;
        m_connection.run(addCorrections, m_instance, m_base + objects[first], m_base + objects[end - 1]);
    }
}

void Corrections::noteRequest(Connection& connection, Instance& instance, std::int64_t highest, bool first) {
    if (instance.listing == 0) return;
    if (instance.proved && first) {
        // No listing followed under the lock before: client and service agreed, and what is missed from now on is missed anew.
        connection.run(dropCorrections, instance.id);
        instance.listing = 0;
        instance.proved = false;
    } else if (highest >= instance.listing) {
        instance.proved = true;
    }
}

void Corrections::write(JSONWriter& writer, NewsPosition& position, std::int64_t most) {
    auto rows = m_connection.query(readCorrectedRows, m_instance, position.row, most);
    while (rows.next()) {
        position.row = rows.integer(0);
        m_transactions.write(writer, rows.text(2), ObjectState::of(rows.integer(1)), rows.text(3));
    }
}

NewsPosition Corrections::skip(std::int64_t count) {
    if (count == 0) return start();
    auto rows = m_connection.query(findCorrection, m_instance, count - 1);
    return {0, rows.next() ? rows.integer(0) : INT64_MAX};
}

}  // namespace velkor::service
