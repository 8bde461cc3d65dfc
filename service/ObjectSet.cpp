#include "service/ObjectSet.h"

#include <algorithm>

#include "service/IncomingTransaction.h"

namespace velkor::service {
namespace {

constexpr Sql readObject{
    "SELECT id, number, touched, instance, state, link_number, link_instance, link_other, body, links "
    "FROM objects WHERE id = :id",
    "i:iiiiiiiitt"};
constexpr Sql addObject{
    "INSERT INTO objects (id, partition_id, guid, number, touched, instance, state, link_number, "
    "link_instance, link_other, body, links) VALUES (:id, :partition, :guid, :number, :touched, :instance, "
    ":state, :link_number, :link_instance, :link_other, :body, :links)",
    "iitiiiiiiitt:"};
constexpr Sql keepForUndo{
    "INSERT INTO undo (id, partition_id, guid, number, touched, instance, state, link_number, "
    "link_instance, link_other, body, links) SELECT id, partition_id, guid, number, touched, instance, "
    "state, link_number, link_instance, link_other, body, links FROM objects WHERE id = :id",
    "i:"};
constexpr Sql storeObject{
    "UPDATE objects SET number = :number, touched = :touched, instance = :instance, state = :state, "
    "link_number = :link_number, link_instance = :link_instance, link_other = :link_other, body = :body, "
    "links = :links WHERE id = :id",
    "iiiiiiitti:"};

ObjectRow takeRow(Rows& rows) {
    ObjectRow row;
    row.object = static_cast<std::uint32_t>(rows.integer(0));
    row.number = rows.integer(1);
    row.touched = rows.integer(2);
    row.instance = rows.integer(3);
    row.state = ObjectState::of(rows.integer(4));
    row.linkNumber = rows.integer(5);
    row.linkInstance = rows.integer(6);
    row.linkOther = rows.integer(7);
    row.storedBody.swap(rows.text(8));
    row.links.swap(rows.text(9));
    row.stored = true;
    return row;
}

}  // namespace

void ObjectRow::noteLinkChange(std::int64_t changeNumber, std::int64_t changeInstance) {
    if (linkInstance != changeInstance) {
        linkOther = linkNumber;
        linkInstance = changeInstance;
    }
    linkNumber = std::max(linkNumber, changeNumber);
    touched = std::max(touched, changeNumber);
}

ObjectRow& ObjectSet::row(std::uint32_t object) {
    auto [place, isNew] = m_places.try_emplace(object, nullptr);
    if (!isNew) return *place->second;
    ObjectRow& row = m_rows.emplace_back();
    place->second = &row;
    if (object < m_firstNew) {
        auto rows = m_connection.query(readObject, rowId(object));
        if (rows.next()) row = takeRow(rows);
    }
    row.object = object;
    return row;
}

std::string ObjectRow::body() const {
    if (!source) return storedBody;
    std::string text;
    source->appendWireForm(text);
    return text;
}

void ObjectSet::store(const GuidDirectory& directory) {
    std::string text;
    for (const ObjectRow& row : m_rows) {
        if (!row.changed) continue;
        text.clear();
        if (row.source) row.source->appendWireForm(text);
        const std::string& body = row.source ? text : row.storedBody;
        const auto id = rowId(row.object);
        if (!row.stored) {
            m_connection.run(addObject, id, m_partition, directory.guid(row.object), row.number, row.touched, row.instance,
                             row.state.code(), row.linkNumber, row.linkInstance, row.linkOther, body, row.links);
            continue;
        }
        m_connection.run(keepForUndo, id);
        m_connection.run(storeObject, row.number, row.touched, row.instance, row.state.code(), row.linkNumber, row.linkInstance,
                         row.linkOther, body, row.links, id);
    }
}

}  // namespace velkor::service
