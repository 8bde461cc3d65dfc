// The store's sessions over SQLite. Internal to the object store.
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "objectstore/StoreSession.h"
#include "objectstore/sqlite/HistoryTable.h"
#include "objectstore/sqlite/Query.h"
#include "objectstore/sqlite/StoreFile.h"
#include "objectstore/sqlite/WriteCache.h"

namespace velkor::NS::sqlite {

/// A borrowed connection. After a write has failed, nothing more is written until the rollback, whatever is asked for.
class SQLiteStoreSession final : public StoreSession {
public:
    SQLiteStoreSession(std::shared_ptr<StoreFile> store, std::unique_ptr<Connection> connection);
    ~SQLiteStoreSession() override;

    Result<void> fetch(const FetchRequest& request, const std::function<void(StoredRow&&)>& handle) override;
    Result<std::size_t> count(const FetchRequest& request, std::span<const RowKey> except) override;
    Result<void> project(const FetchRequest& request, std::span<const std::string> names,
                         const std::function<void(RowKey, std::span<const Value>)>& handle) override;
    Result<void> rows(const EntityDescription& entity, std::span<const RowKey> keys,
                      const std::function<void(StoredRow&&)>& handle) override;
    Result<void> destinations(const RelationshipDescription& relationship, std::span<const RowKey> owners,
                              const std::function<void(RowKey owner, RowKey destination)>& handle) override;

    Result<void> begin() override;
    Result<RowKey> insert(const EntityDescription& entity, RowKey key, std::span<const Value> values,
                          std::int64_t version) override;
    Result<WriteOutcome> update(const EntityDescription& entity, RowKey key, std::int64_t expectedVersion,
                                std::span<const std::size_t> changed, std::span<const Value> values) override;
    Result<WriteOutcome> remove(const EntityDescription& entity, RowKey key, std::int64_t expectedVersion) override;
    Result<void> link(const RelationshipDescription& relationship, RowKey owner, RowKey destination) override;
    Result<void> unlink(const RelationshipDescription& relationship, RowKey owner, RowKey destination) override;
    Result<std::int64_t> appendHistory(const SaveStamp& save, const EntityDescription& entity, RowKey key, ChangeKind kind,
                                       std::span<const Value> values) override;
    void touched(const EntityDescription& entity, ChangeKind kind, std::span<const std::size_t> changedAttributes) override;
    Result<void> commit() override;
    void rollback() noexcept override;
    Result<RowKey> reserveKeys(const EntityDescription& entity, std::size_t count) override;

private:
    // Reading.
    Result<const EntityTable*> tableFor(const FetchRequest& request) const;
    Result<StatementLease> prepared(const Query& query);
    Result<void> readRows(const EntityTable& table, const Query& query, KeyCondition* keys,
                          const std::function<void(StoredRow&&)>& handle);

    // Writing.
    Result<void> checkWritable() const;
    Result<void> bindColumn(Statement& statement, int place, const EntityTable& table, std::size_t column, const Value& value);
    Result<void> writeLink(const RelationshipDescription& relationship, RowKey owner, RowKey destination, bool linked);
    /// The cached statement, made at its first use from what `makeSQL` gives.
    template <class MakeSQL>
    Result<Statement*> ready(Statement& cached, const MakeSQL& makeSQL) {
        if (!cached) {
            auto made = m_connection->makeStatement(makeSQL());
            if (!made) return failed(made.error());
            cached = std::move(made).value();
        }
        return &cached;
    }
    /// Runs a statement whose parameters are bound, and gives them up.
    Result<void> runBound(Statement& statement);
    Result<Statement*> updateStatement(const EntityTable& table, std::span<const std::size_t> changed);
    Result<WriteOutcome> outcome(const EntityTable& table, RowKey key);
    Result<void> writeHistory();
    Result<void> writeStamps();
    void endTransaction() noexcept;
    /// Remembers that this transaction has failed.
    Error failed(Error error);

    std::shared_ptr<StoreFile> m_store;
    std::unique_ptr<Connection> m_connection;
    WriteCache& m_cache;  // the connection's
    bool m_inTransaction = false;
    std::optional<Error> m_failure;  // of the open transaction
    std::vector<bool> m_touched;     // watches that the open transaction touched
    HistoryRun m_history;            // not yet written
    StoredForm m_form;               // used again for each value
};

}  // namespace velkor::NS::sqlite
