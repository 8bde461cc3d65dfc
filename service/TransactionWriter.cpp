#include "service/TransactionWriter.h"

#include <vector>

#include "PelmoLib/encodings/GuidOrder.h"
#include "service/IncomingTransaction.h"
#include "service/LinkText.h"

namespace velkor::service {
namespace {

constexpr Sql findGuid{"SELECT guid FROM objects WHERE id = :id", "i:t"};

}  // namespace

void TransactionWriter::write(JSONWriter& writer, const std::string& body, const ObjectState& state, const std::string& links) {
    writer.beginObject();
    writer.key("transaction");
    writeBody(writer, body, state, links);
    writer.endObject();
}

void TransactionWriter::writeBody(JSONWriter& writer, const std::string& body, const ObjectState& state,
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

bool TransactionWriter::writeComputed(std::string& out, const std::string& body, const std::string& links) {
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

std::string TransactionWriter::guidOf(std::uint32_t object) {
    auto rows = m_connection.query(findGuid, (m_partition << 32) + object);
    return rows.next() ? rows.text(0) : std::string();
}

}  // namespace velkor::service
