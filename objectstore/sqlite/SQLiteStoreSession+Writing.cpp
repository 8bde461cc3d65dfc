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

Result<void> SQLiteStoreSession::runBound(Statement& statement) {
    auto run = m_connection->run(statement);
    statement.clear();
    return run ? run : failed(run.error());
}

Result<RowKey> SQLiteStoreSession::insert(const EntityDescription& entity, RowKey key, std::span<const Value> values,
                                          std::int64_t version) {
    if (auto writable = checkWritable(); !writable) return writable.error();
    const EntityTable* table = m_store->schema().table(entity);
    assertThat(table && values.size() == table->columns.size(), "A row's values are those of its entity");
    auto prepared = ready(m_cache.rows(entity).insert, [&] { return table->insertSQL; });
    if (!prepared) return prepared.error();
    Statement& insert = *prepared.value();
    KeyCounter& keys = m_cache.keys(entity);
    if (key == 0) {
        auto taken = keys.take(*m_connection);
        if (!taken) return failed(taken.error());
        key = taken.value();
    } else {
        keys.used(key);
    }
    insert.bind(1, key);
    insert.bind(2, version);
    int place = 3;
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (table->columns[i].content == Column::Content::none) continue;
        if (auto bound = bindColumn(insert, place++, *table, i, values[i]); !bound) {
            insert.clear();
            return failed(bound.error());
        }
    }
    if (auto run = runBound(insert); !run) return run.error();
    return key;
}

/// The parameters are the columns' values, the key, the expected version.
Result<Statement*> SQLiteStoreSession::updateStatement(const EntityTable& table, std::span<const std::size_t> changed) {
    WriteCache::RowStatements& cached = m_cache.rows(*table.entity);
    if (!std::equal(changed.begin(), changed.end(), cached.updated.begin(), cached.updated.end())) {
        cached.update = Statement();
        cached.updated.assign(changed.begin(), changed.end());
    }
    return ready(cached.update, [&] {
        std::string sql = "UPDATE " + table.name + " SET v=v+1";
        int place = 0;
        for (const std::size_t column : changed) {
            if (table.columns[column].content != Column::Content::none)
                sql += ',' + table.columns[column].name + "=?" + std::to_string(++place);
        }
        const std::string version = '?' + std::to_string(place + 2);
        return sql + " WHERE id=?" + std::to_string(place + 1) + " AND (" + version + "=-1 OR v=" + version + ')';
    });
}

Result<WriteOutcome> SQLiteStoreSession::update(const EntityDescription& entity, RowKey key, std::int64_t expectedVersion,
                                                std::span<const std::size_t> changed, std::span<const Value> values) {
    if (auto writable = checkWritable(); !writable) return writable.error();
    const EntityTable* table = m_store->schema().table(entity);
    assertThat(table && values.size() == table->columns.size(), "A row's values are those of its entity");
    if (changed.empty() && expectedVersion == -1) {
        auto touch = ready(m_cache.rows(entity).touch, [&] { return "UPDATE " + table->name + " SET v=v+1 WHERE id=?"; });
        if (!touch) return touch.error();
        touch.value()->bind(1, key);
        if (auto run = runBound(*touch.value()); !run) return run.error();
        return outcome(*table, key);
    }
    auto prepared = updateStatement(*table, changed);
    if (!prepared) return prepared.error();
    Statement& statement = *prepared.value();
    int place = 1;
    for (const std::size_t column : changed) {
        if (table->columns[column].content == Column::Content::none) continue;
        if (auto bound = bindColumn(statement, place++, *table, column, values[column]); !bound) {
            statement.clear();
            return failed(bound.error());
        }
    }
    statement.bind(place, key);
    statement.bind(place + 1, expectedVersion);
    if (auto run = runBound(statement); !run) return run.error();
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
    if (auto kept = m_cache.keys(entity).willRemove(*m_connection, key); !kept) return failed(kept.error());
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
    WriteCache::LinkStatements& cached = m_cache.links(relationship);
    auto prepared = ready(linked ? cached.add : cached.remove, [&] {
        const LinkTable links = linkTable(relationship);
        return linked ? "INSERT OR IGNORE INTO " + links.name + '(' + links.owner + ',' + links.destination + ") VALUES(?,?)"
                      : "DELETE FROM " + links.name + " WHERE " + links.owner + "=? AND " + links.destination + "=?";
    });
    if (!prepared) return prepared.error();
    const auto write = [&](RowKey from, RowKey to) {
        prepared.value()->bind(1, from);
        prepared.value()->bind(2, to);
        return runBound(*prepared.value());
    };
    if (auto written = write(owner, destination); !written) return written;
    if (relationship.inverse != &relationship || owner == destination) return {};
    // A relationship that is its own inverse holds in both directions.
    return write(destination, owner);
}

Result<std::int64_t> SQLiteStoreSession::appendHistory(const SaveStamp& save, const EntityDescription& entity, RowKey key,
                                                       ChangeKind kind, std::span<const Value> values) {
    if (auto writable = checkWritable(); !writable) return writable.error();
    if (!m_cache.layout->keepsHistory) return 0;
    auto sequence = m_cache.sequences().take(*m_connection);
    if (!sequence) return failed(sequence.error());
    const bool marked = m_store->historyMark();
    if (!m_history.empty() && !m_history.takes(save, marked)) {
        if (auto written = writeHistory(); !written) return written.error();
    }
    m_history.add(sequence.value(), save, marked, m_cache.layout->historyEntities[entity.index()], key, kind, values);
    return sequence;
}

Result<void> SQLiteStoreSession::writeHistory() {
    if (m_history.empty()) return {};
    auto prepared = ready(m_cache.appendHistory, [] { return HistoryRun::insertSQL; });
    if (!prepared) return prepared.error();
    auto written = m_history.write(*m_connection, *prepared.value(), m_store->process());
    return written ? written : failed(written.error());
}

}  // namespace velkor::NS::sqlite
