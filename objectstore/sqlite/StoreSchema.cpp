#include "objectstore/sqlite/StoreSchema.h"

#include <algorithm>

namespace velkor::NS::sqlite {

namespace {

Column columnOf(const AttributeDescription& attribute) {
    return {Column::Content::attribute, attribute.type, attribute.optional, quoted("a_", attribute.name), attribute.name};
}

Column columnOf(const RelationshipDescription& relationship) {
    Column column;
    column.property = relationship.name;
    if (relationship.toMany) return column;
    column.content = Column::Content::key;
    column.optional = relationship.optional;
    column.name = quoted("r_", relationship.name);
    return column;
}

std::string dotted(const RelationshipDescription& relationship) { return relationship.entity->name() + '.' + relationship.name; }

std::string indexSQL(std::string_view index, std::string_view table, std::string_view columns) {
    return "CREATE INDEX " + quoted("", index) + " ON " + std::string(table) + '(' + std::string(columns) + ')';
}

}  // namespace

std::string quoted(std::string_view prefix, std::string_view name) {
    std::string text = "\"";
    text += prefix;
    text += name;
    return text += '"';
}

std::string_view Column::declaredType() const noexcept {
    if (content == Content::key) return "INTEGER";
    switch (type) {
        case AttributeType::integer16:
        case AttributeType::integer32:
        case AttributeType::integer64:
        case AttributeType::boolean:
            return "INTEGER";
        case AttributeType::doubleType:
        case AttributeType::floatType:
        case AttributeType::date:
            return "REAL";
        case AttributeType::string:
        case AttributeType::decimal:
        case AttributeType::objectID:
            return "TEXT";
        case AttributeType::undefined:
        case AttributeType::binaryData:
        case AttributeType::transformable:
            return "BLOB";
    }
    return "BLOB";
}

EntityTable::EntityTable(const EntityDescription& described)
    : entity(&described), name(quoted("e_", described.name())), keys(described.name(), name, "id") {
    for (const AttributeDescription& attribute : described.attributes()) columns.push_back(columnOf(attribute));
    for (const RelationshipDescription& relationship : described.relationships()) columns.push_back(columnOf(relationship));
    std::string names = "id,v";
    std::string parameters = "?,?";
    for (const Column& column : columns) {
        if (column.content == Column::Content::none) continue;
        names += ',' + column.name;
        parameters += ",?";
    }
    rowSQL = "SELECT " + names + " FROM " + name;
    insertSQL = "INSERT INTO " + name + '(' + names + ") VALUES(" + parameters + ')';
    removeSQL = "DELETE FROM " + name + " WHERE id=?1 AND (?2=-1 OR v=?2)";
}

const Column* EntityTable::columnNamed(std::string_view property) const noexcept {
    for (const Column& column : columns) {
        if (column.property == property) return &column;
    }
    return nullptr;
}

std::string EntityTable::creationSQL() const {
    std::string sql = "CREATE TABLE " + name + "(id INTEGER PRIMARY KEY,v INTEGER NOT NULL";
    for (const Column& column : columns) {
        if (column.content == Column::Content::none) continue;
        sql += ',' + column.name + ' ' + std::string(column.declaredType());
    }
    return sql + ')';
}

std::string joinTableName(const RelationshipDescription& relationship) {
    const std::string own = dotted(relationship);
    return "j_" + (relationship.inverse ? std::min(own, dotted(*relationship.inverse)) : own);
}

LinkTable linkTable(const RelationshipDescription& relationship) {
    if (!relationship.manyToMany()) {
        return {quoted("e_", relationship.destinationName), quoted("r_", relationship.inverseName), "id", false};
    }
    const std::string name = joinTableName(relationship);
    const bool first = name == "j_" + dotted(relationship);
    return {quoted("", name), first ? "owner" : "destination", first ? "destination" : "owner", true};
}

StoreSchema::StoreSchema(std::shared_ptr<const ManagedObjectModel> model) : m_model(std::move(model)) {
    for (const auto& entity : m_model->entities()) m_tables.emplace_back(*entity);
    m_detachSQL.resize(m_tables.size());
    for (const EntityTable& table : m_tables) {
        if (table.entity->attributeNamed(m_model->identityAttribute())) {
            const std::string index = "i_" + table.entity->name() + '.' + m_model->identityAttribute();
            m_indices[index] = indexSQL(index, table.name, quoted("a_", m_model->identityAttribute()));
        }
        for (const RelationshipDescription& relationship : table.entity->relationships()) {
            auto& detachOwner = m_detachSQL[table.entity->index()];
            auto& detachDestination = m_detachSQL[relationship.destination->index()];
            if (relationship.manyToMany()) {
                const std::string join = joinTableName(relationship);
                if (m_joinTables.contains(join)) continue;  // the other side came first
                m_joinTables[join] =
                    "CREATE TABLE " + quoted("", join) +
                    "(owner INTEGER NOT NULL,destination INTEGER NOT NULL,PRIMARY KEY(owner,destination)) WITHOUT ROWID";
                const std::string index = 'i' + join.substr(1);
                m_indices[index] = indexSQL(index, quoted("", join), "destination,owner");
                const LinkTable links = linkTable(relationship);
                detachOwner.push_back("DELETE FROM " + links.name + " WHERE " + links.owner + "=?");
                detachDestination.push_back("DELETE FROM " + links.name + " WHERE " + links.destination + "=?");
            } else if (!relationship.toMany) {
                const std::string index = "i_" + dotted(relationship);
                const std::string column = quoted("r_", relationship.name);
                m_indices[index] = indexSQL(index, table.name, column);
                detachDestination.push_back("UPDATE " + table.name + " SET " + column + "=NULL WHERE " + column + "=?");
            }
        }
    }
}

const EntityTable* StoreSchema::table(const EntityDescription& entity) const noexcept {
    return &entity.model() == m_model.get() ? &m_tables[entity.index()] : nullptr;
}

}  // namespace velkor::NS::sqlite
