#include "service/NewTransactions.h"

#include <vector>

#include "PelmoLib/encodings/GuidOrder.h"
#include "service/IncomingTransaction.h"
#include "service/LinkText.h"

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
constexpr Sql findGuid{"SELECT guid FROM objects WHERE id = :id", "i:t"};

}  // namespace

std::int64_t NewTransactions::write(JSONWriter& writer, NewsPosition& position, std::int64_t most) {
    std::int64_t count = 0;
    auto rows = m_connection.query(readNews, m_partition, position.touched, position.row, m_highest, m_instance, most);
    for (; rows.next(); ++count) {
        position = {rows.integer(1), rows.integer(0)};
        writer.beginObject();
        writer.key("transaction");
        writeTransaction(writer, rows.text(3), ObjectState::of(rows.integer(2)), rows.text(4));
        writer.endObject();
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

void NewTransactions::writeTransaction(JSONWriter& writer, const std::string& body, const ObjectState& state,
                                       const std::string& links) {
    if (state.computed && isLive(state.kind)) {
        std::string whole = body;
        whole.pop_back();  // the closing brace
        whole += ",\"computed_relationships\":";
        if (writeComputed(whole, body, links)) {
            whole += '}';
            writer.raw(whole);
            return;
        }
    }
    writer.raw(body);
}

bool NewTransactions::writeComputed(std::string& out, const std::string& body, const std::string& links) {
    const auto stored = relationshipsOfStoredTransaction(body);
    if (!stored || stored->relationships.empty()) return false;
    if (!m_relations) m_relations.emplace(Relations::read(m_connection, m_partition));
    JSONWriter writer(out);
    writer.beginObject();
    for (const auto& entry : stored->relationships) {
        const NS::Dictionary* description = entry.value().asDictionary();
        const auto destination = description ? (*description)["destination_type"].stringOr("") : std::string();
        const auto end = m_relations->end(stored->className, entry.key(), destination);
        if (!description || !end.paired) {
            writer.member(entry.key(), entry.value());
            continue;
        }
        std::vector<std::string> guids;
        std::string_view rest = links;
        for (Link link; takeLink(rest, link);) {
            if (link.key == end.key && link.present) guids.push_back(guidOf(link.other));
        }
        sortGuids(guids);
        const bool toMany = (*description)["to_many"].asBoolean().value_or(false);
        writer.key(entry.key());
        writer.beginObject();
        writer.member("name", std::string_view(entry.key()));
        writer.member("destination_type", destination);
        writer.key("to_many");
        writer.boolean(toMany);
        if (toMany) {
            writer.key("destination_objects");
            writer.beginArray();
            for (const auto& guid : guids) writer.string(guid);
            writer.endArray();
        } else if (!guids.empty()) {
            writer.member("destination_object", guids.front());
        }
        writer.endObject();
    }
    writer.endObject();
    return writer.ok();
}

std::string NewTransactions::guidOf(std::uint32_t object) {
    auto rows = m_connection.query(findGuid, (m_partition << 32) + object);
    return rows.next() ? rows.text(0) : std::string();
}

}  // namespace velkor::service
