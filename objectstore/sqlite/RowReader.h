// Rows of SQLite become values of the model. Internal to the object store.
#pragma once

#include <string>
#include <vector>

#include "objectstore/StoreSession.h"
#include "objectstore/sqlite/Statement.h"
#include "objectstore/sqlite/StoreSchema.h"

namespace velkor::NS::sqlite {

/// Reads the value of a statement's column as a value of the table's column. False: the file holds something else (it is
/// damaged).
bool readValue(const Statement& statement, int place, const Column& column, const ManagedObjectModel& model, Value& value);
/// The identifier that the text is; false for another text.
bool readObjectID(std::string_view uri, const ManagedObjectModel& model, Value& value);

/// Reads the rows of one query into one StoredRow after another. The row's storage is used again unless its taker moved it away.
class RowReader {
public:
    RowReader(const EntityTable& table, const ManagedObjectModel& model) : m_table(table), m_model(model) {}
    /// The statement selects what EntityTable::rowSQL does. False: the row is damaged (see problem()).
    bool read(const Statement& statement);
    StoredRow& row() noexcept { return m_row; }
    std::string problem() const;

private:
    const EntityTable& m_table;
    const ManagedObjectModel& m_model;
    StoredRow m_row;
    const Column* m_damaged = nullptr;
};

}  // namespace velkor::NS::sqlite
