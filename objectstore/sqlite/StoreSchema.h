// Tables and columns of a model (docs/formats.md). Internal to the object store.
#pragma once

#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "objectstore/ManagedObjectModel.h"
#include "objectstore/sqlite/KeyCounter.h"

namespace velkor::NS::sqlite {

/// Where a property lies: a column of the entity's table, or, for a to-many relationship, nowhere.
struct Column {
    enum class Content { attribute, key, none };
    Content content = Content::none;
    AttributeType type = AttributeType::undefined;
    bool optional = true;
    std::string name;           // quoted
    std::string_view property;  // the property's name in the model
    std::string_view declaredType() const noexcept;
};

/// The table of an entity and the statements that its rows need. Columns stand in the order of StoredRow::values.
struct EntityTable {
    explicit EntityTable(const EntityDescription& described);

    const EntityDescription* entity;
    std::string name;  // quoted
    std::vector<Column> columns;
    std::string rowSQL;  // SELECT of whole rows: key, version, then the stored columns
    std::string insertSQL;
    std::string removeSQL;
    KeyCounter::Source keys;

    const Column* columnNamed(std::string_view property) const noexcept;
    std::string creationSQL() const;
};

/// Where the links of a to-many relationship lie: the destination's table when the other side is a to-one, else a join table.
struct LinkTable {
    std::string name;         // all quoted
    std::string owner;        // column of the relationship's owner
    std::string destination;  // column of its destination
    bool isJoin = false;
};

/// The SQLite names are quoted; names of models hold no quotation marks.
std::string quoted(std::string_view prefix, std::string_view name);
/// The name of a relationship's join table, unquoted: that of the side whose name sorts first, so that both sides agree.
std::string joinTableName(const RelationshipDescription& relationship);
LinkTable linkTable(const RelationshipDescription& relationship);

/// All tables of one model. Immutable; any thread.
class StoreSchema {
public:
    explicit StoreSchema(std::shared_ptr<const ManagedObjectModel> model);

    const ManagedObjectModel& model() const noexcept { return *m_model; }
    /// Null for an entity of another model.
    const EntityTable* table(const EntityDescription& entity) const noexcept;
    const EntityTable& table(std::size_t entityIndex) const noexcept { return m_tables[entityIndex]; }
    std::size_t tableCount() const noexcept { return m_tables.size(); }

    /// Statements that clear what refers to a row that is removed: each has the row's key as its parameter.
    std::span<const std::string> detachSQL(const EntityDescription& entity) const noexcept { return m_detachSQL[entity.index()]; }
    /// Join tables, name (unquoted) to creation statement.
    const std::map<std::string, std::string>& joinTables() const noexcept { return m_joinTables; }
    /// Indices, name (unquoted) to creation statement.
    const std::map<std::string, std::string>& indices() const noexcept { return m_indices; }

private:
    std::shared_ptr<const ManagedObjectModel> m_model;
    std::vector<EntityTable> m_tables;
    std::vector<std::vector<std::string>> m_detachSQL;
    std::map<std::string, std::string> m_joinTables;
    std::map<std::string, std::string> m_indices;
};

}  // namespace velkor::NS::sqlite
