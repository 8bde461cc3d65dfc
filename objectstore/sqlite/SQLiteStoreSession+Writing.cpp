#include <algorithm>

#include "objectstore/sqlite/SQLiteStoreSession.h"
#include "objectstore/sqlite/StoreFailure.h"
#include "platform/base/Exception.h"

namespace velkor::NS::sqlite {

Result<void> SQLiteStoreSession::bindColumn(Statement& statement, int place, const EntityTable& table, std::size_t index,
                                            const Value& value) {
    const Column& column = table.columns[index];
    const auto invalid = [&](std::string_view problem) {
        return storeError(StoreError::validation,
                          table.entity->name() + '.' + std::string(column.property) + ' ' + std::string(problem) + '.');
    };
    if (value.isNil()) {
        if (!column.optional) return invalid("needs a value");
        statement.bindNull(place);
        return {};
    }
    if (column.content == Column::Content::key) {
        const auto key = value.asInteger();
        if (!key || *key <= 0) return invalid("leads to no row");
        statement.bind(place, *key);
        return {};
    }
    const std::string_view problem = m_form.take(column.type, value);
    if (!problem.empty()) return invalid(problem);
    statement.bind(place, m_form);
    return {};
}

Result<RowKey> SQLiteStoreSession::insert(const EntityDescription& entity, RowKey key, std::span<const Value> values) {
    if (auto writable = checkWritable(); !writable) return writable.error();
    const EntityTable* table = m_store->schema().table(entity);
    assertThat(table && values.size() == table->columns.size(), "A row's values are those of its entity");
    StatementLease& insert = m_inserts[entity.index()];
    if (!insert) {
        auto lease = m_connection->prepare(table->insertSQL);
        if (!lease) return failed(lease.error());
        insert = std::move(lease).value();
    }
    if (key == 0) {
        auto taken = m_keys[entity.index()].take(*m_connection);
        if (!taken) return failed(taken.error());
        key = taken.value();
    } else {
        m_keys[entity.index()].used(key);
    }
    insert->bind(1, key);
    int place = 2;
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (table->columns[i].content == Column::Content::none) continue;
        if (auto bound = bindColumn(*insert, place++, *table, i, values[i]); !bound) {
            insert->reset();
            return failed(bound.error());
        }
    }
    if (auto run = m_connection->run(*insert); !run) return failed(run.error());
    insert->reset();
    return key;
}

Result<WriteOutcome> SQLiteStoreSession::update(const EntityDescription& entity, RowKey key, std::int64_t expectedVersion,
                                                std::span<const std::size_t> changed, std::span<const Value> values) {
    if (auto writable = checkWritable(); !writable) return writable.error();
    const EntityTable* table = m_store->schema().table(entity);
    assertThat(table && values.size() == table->columns.size(), "A row's values are those of its entity");
    if (m_update.table != table ||
        !std::equal(changed.begin(), changed.end(), m_update.columns.begin(), m_update.columns.end())) {
        std::string sql = "UPDATE " + table->name + " SET v=v+1";
        for (const std::size_t column : changed) {
            if (table->columns[column].content != Column::Content::none) sql += ',' + table->columns[column].name + "=?";
        }
        auto lease = m_connection->prepare(sql + " WHERE id=? AND (?=-1 OR v=?)");
        if (!lease) return failed(lease.error());
        m_update.table = table;
        m_update.columns.assign(changed.begin(), changed.end());
        m_update.statement = std::move(lease).value();
    }
    Statement& statement = *m_update.statement;
    int place = 1;
    for (const std::size_t column : changed) {
        if (table->columns[column].content == Column::Content::none) continue;
        if (auto bound = bindColumn(statement, place++, *table, column, values[column]); !bound) {
            statement.reset();
            return failed(bound.error());
        }
    }
    statement.bind(place, key);
    statement.bind(place + 1, expectedVersion);
    statement.bind(place + 2, expectedVersion);
    if (auto run = m_connection->run(statement); !run) return failed(run.error());
    statement.reset();
    return outcome(*table, key);
}

/// Of the update or removal just run: if it hit no row, either the row is another than expected or there is none.
Result<WriteOutcome> SQLiteStoreSession::outcome(const EntityTable& table, RowKey key) {
    if (m_connection->changes() > 0) return WriteOutcome::written;
    auto lease = m_connection->prepare("SELECT 1 FROM " + table.name + " WHERE id=?");
    if (!lease) return failed(lease.error());
    lease.value()->bind(1, key);
    const int code = lease.value()->step();
    if (code == SQLITE_ROW) return WriteOutcome::changedSince;
    if (code == SQLITE_DONE) return WriteOutcome::missing;
    return failed(m_connection->failure(code));
}

Result<WriteOutcome> SQLiteStoreSession::remove(const EntityDescription& entity, RowKey key, std::int64_t expectedVersion) {
    if (auto writable = checkWritable(); !writable) return writable.error();
    const EntityTable* table = m_store->schema().table(entity);
    assertThat(table != nullptr, "A row is removed from a table of this store");
    if (auto kept = m_keys[entity.index()].willRemove(*m_connection, key); !kept) return failed(kept.error());
    auto removed = m_connection->run(table->removeSQL, [&](Statement& statement) {
        statement.bind(1, key);
        statement.bind(2, expectedVersion);
    });
    if (!removed) return failed(removed.error());
    auto result = outcome(*table, key);
    if (!result || result.value() != WriteOutcome::written) return result;
    // The saving context has dissolved the relationships it knows of; others may have been made since.
    for (const std::string& sql : m_store->schema().detachSQL(entity)) {
        auto detached = m_connection->run(sql, [&](Statement& statement) { statement.bind(1, key); });
        if (!detached) return failed(detached.error());
    }
    return result;
}

Result<void> SQLiteStoreSession::link(const RelationshipDescription& relationship, RowKey owner, RowKey destination) {
    return writeLink(relationship, owner, destination, true);
}

Result<void> SQLiteStoreSession::unlink(const RelationshipDescription& relationship, RowKey owner, RowKey destination) {
    return writeLink(relationship, owner, destination, false);
}

Result<void> SQLiteStoreSession::writeLink(const RelationshipDescription& relationship, RowKey owner, RowKey destination,
                                           bool linked) {
    if (auto writable = checkWritable(); !writable) return writable;
    assertThat(relationship.manyToMany() && m_store->schema().table(*relationship.entity),
               "Links belong to many-to-many relationships");
    const LinkTable links = linkTable(relationship);
    const std::string sql =
        linked ? "INSERT OR IGNORE INTO " + links.name + '(' + links.owner + ',' + links.destination + ") VALUES(?,?)"
               : "DELETE FROM " + links.name + " WHERE " + links.owner + "=? AND " + links.destination + "=?";
    const auto write = [&](RowKey from, RowKey to) {
        return m_connection->run(sql, [&](Statement& statement) {
            statement.bind(1, from);
            statement.bind(2, to);
        });
    };
    if (auto written = write(owner, destination); !written) return failed(written.error());
    if (relationship.inverse != &relationship || owner == destination) return {};
    // A relationship that is its own inverse holds in both directions.
    if (auto written = write(destination, owner); !written) return failed(written.error());
    return {};
}

Result<std::int64_t> SQLiteStoreSession::appendHistory(const HistoryRow& row) {
    if (auto writable = checkWritable(); !writable) return writable.error();
    if (!m_layout->keepsHistory) return 0;
    if (!m_appendHistory) {
        auto lease = m_connection->prepare(m_layout->historySQL);
        if (!lease) return failed(lease.error());
        m_appendHistory = std::move(lease).value();
    }
    auto sequence = m_sequences.take(*m_connection);
    if (!sequence) return failed(sequence.error());
    Statement& statement = *m_appendHistory;
    statement.bind(1, sequence.value());
    statement.bind(2, row.time.timeIntervalSince1970());
    statement.bindText(3, row.entityName);
    statement.bind(4, row.key);
    statement.bind(5, static_cast<std::int64_t>(row.kind));
    statement.bindText(6, row.author);
    statement.bindText(7, m_store->process());
    statement.bind(8, static_cast<std::int64_t>(m_store->historyMark()));
    const EntityDescription* entity = m_store->schema().model().entityNamed(row.entityName);
    int place = 9;
    for (const std::string& name : m_layout->keptAttributes) {
        const AttributeDescription* attribute = entity ? entity->attributeNamed(name) : nullptr;
        const bool kept = attribute && m_form.take(attribute->type, row.kept[name]).empty();
        if (kept) {
            statement.bind(place++, m_form);
        } else {
            statement.bindNull(place++);
        }
    }
    if (auto run = m_connection->run(statement); !run) return failed(run.error());
    statement.reset();
    return sequence;
}

}  // namespace velkor::NS::sqlite
