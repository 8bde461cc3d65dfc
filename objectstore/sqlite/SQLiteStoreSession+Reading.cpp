#include "objectstore/sqlite/Query.h"
#include "objectstore/sqlite/RowReader.h"
#include "objectstore/sqlite/SQLiteStoreSession.h"
#include "objectstore/sqlite/StoreFailure.h"

namespace velkor::NS::sqlite {

Result<const EntityTable*> SQLiteStoreSession::tableFor(const FetchRequest& request) const {
    if (!request.entity) return storeError(StoreError::badRequest, "A fetch request needs an entity.");
    const EntityTable* table = m_store->schema().table(*request.entity);
    if (!table)
        return storeError(StoreError::badRequest, "The entity " + request.entity->name() + " is not of this store's model.");
    return table;
}

Result<StatementLease> SQLiteStoreSession::prepared(const Query& query) {
    auto lease = m_connection->prepare(query.sql);
    if (lease) query.bind(*lease.value());
    return lease;
}

Result<void> SQLiteStoreSession::readRows(const EntityTable& table, const Query& query, KeyCondition* keys,
                                          const std::function<void(StoredRow&&)>& handle) {
    auto lease = prepared(query);
    if (!lease) return lease.error();
    RowReader reader(table, m_store->schema().model());
    return m_connection->eachRow(*lease.value(), [&](Statement& statement) -> Result<void> {
        if (keys && !keys->accepts(statement.integer(0))) return {};
        if (!reader.read(statement)) return storeFileError(StoreError::notAStore, m_store->path(), reader.problem());
        handle(std::move(reader.row()));
        return {};
    });
}

Result<void> SQLiteStoreSession::fetch(const FetchRequest& request, const std::function<void(StoredRow&&)>& handle) {
    auto table = tableFor(request);
    if (!table) return table.error();
    Query query{table.value()->rowSQL, {}};
    if (auto appended = appendRequest(query, request, *table.value(), true); !appended) return appended;
    return readRows(*table.value(), query, nullptr, handle);
}

Result<std::size_t> SQLiteStoreSession::count(const FetchRequest& request, std::span<const RowKey> except) {
    auto table = tableFor(request);
    if (!table) return table.error();
    Query query{"SELECT count(*) FROM (SELECT id FROM " + table.value()->name, {}};
    if (auto appended = appendRequest(query, request, *table.value(), false); !appended) return appended.error();
    query.sql += ')';
    if (!except.empty()) {
        query.sql += " WHERE NOT id";
        query.appendList(std::vector<Value>(except.begin(), except.end()), true);
    }
    auto lease = prepared(query);
    if (!lease) return lease.error();
    const int code = lease.value()->step();
    if (code != SQLITE_ROW) return m_connection->failure(code);
    return static_cast<std::size_t>(lease.value()->integer(0));
}

Result<void> SQLiteStoreSession::project(const FetchRequest& request, std::span<const std::string> names,
                                         const std::function<void(RowKey, std::span<const Value>)>& handle) {
    auto table = tableFor(request);
    if (!table) return table.error();
    std::vector<const Column*> columns;
    Query query{"SELECT id", {}};
    for (const std::string& name : names) {
        const Column* column = table.value()->columnNamed(name);
        if (!column || column->content == Column::Content::none) {
            return storeError(StoreError::badRequest,
                              request.entity->name() + " has no attribute or to-one relationship " + name + '.');
        }
        columns.push_back(column);
        query.sql += ',' + column->name;
    }
    query.sql += " FROM " + table.value()->name;
    if (auto appended = appendRequest(query, request, *table.value(), true); !appended) return appended;
    auto lease = prepared(query);
    if (!lease) return lease.error();
    std::vector<Value> values(columns.size());
    return m_connection->eachRow(*lease.value(), [&](Statement& statement) -> Result<void> {
        for (std::size_t i = 0; i < columns.size(); ++i) {
            if (readValue(statement, static_cast<int>(i) + 1, *columns[i], m_store->schema().model(), values[i])) continue;
            return storeFileError(StoreError::notAStore, m_store->path(),
                                  "is damaged: " + request.entity->name() + '.' + names[i] + " cannot be read");
        }
        handle(statement.integer(0), values);
        return {};
    });
}

Result<void> SQLiteStoreSession::rows(const EntityDescription& entity, std::span<const RowKey> keys,
                                      const std::function<void(StoredRow&&)>& handle) {
    auto table = tableFor(FetchRequest(&entity));
    if (!table) return table.error();
    KeyCondition condition(keys);
    if (condition.empty()) return {};
    Query query{table.value()->rowSQL + " WHERE ", {}};
    condition.append(query, "id");
    query.sql += " ORDER BY id";
    return readRows(*table.value(), query, &condition, handle);
}

Result<void> SQLiteStoreSession::destinations(const RelationshipDescription& relationship, std::span<const RowKey> owners,
                                              const std::function<void(RowKey owner, RowKey destination)>& handle) {
    auto table = tableFor(FetchRequest(relationship.entity));
    if (!table) return table.error();
    if (!relationship.toMany) {
        return storeError(StoreError::badRequest,
                          relationship.entity->name() + '.' + relationship.name + " is no to-many relationship.");
    }
    KeyCondition condition(owners);
    if (condition.empty()) return {};
    const LinkTable links = linkTable(relationship);
    Query query{"SELECT " + links.owner + ',' + links.destination + " FROM " + links.name + " WHERE ", {}};
    condition.append(query, links.owner);
    query.sql += " ORDER BY " + links.owner + ',' + links.destination;
    auto lease = prepared(query);
    if (!lease) return lease.error();
    return m_connection->eachRow(*lease.value(), [&](Statement& statement) {
        const RowKey owner = statement.integer(0), destination = statement.integer(1);
        if (!condition.accepts(owner)) return Result<void>();
        if (destination <= 0) {
            return Result<void>(storeFileError(StoreError::notAStore, m_store->path(),
                                               "is damaged: " + relationship.entity->name() + '.' + relationship.name +
                                                   " of row " + std::to_string(owner) + " cannot be read"));
        }
        handle(owner, destination);
        return Result<void>();
    });
}

}  // namespace velkor::NS::sqlite
