// The store's sessions over SQLite. Internal to the object store.
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "objectstore/StoreSession.h"
#include "objectstore/sqlite/HistoryTable.h"
#include "objectstore/sqlite/KeyCounter.h"
#include "objectstore/sqlite/Query.h"
#include "objectstore/sqlite/StoreFile.h"

namespace velkor::NS::sqlite {

/// A borrowed connection. After a write has failed, nothing more is written until the rollback, whatever is asked for.
class SQLiteStoreSession final : public StoreSession {
public:
    SQLiteStoreSession(std::shared_ptr<StoreFile> store, std::unique_ptr<Connection> connection);
    ~SQLiteStoreSession() override;

    Result<void> fetch(const FetchRequest& request, const std::function<void(StoredRow&&)>& handle) override;
    Result<std::size_t> count(const FetchRequest& request) override;
    Result<void> project(const FetchRequest& request, std::span<const std::string> names,
                         const std::function<void(RowKey, std::span<const Value>)>& handle) override;
    Result<void> rows(const EntityDescription& entity, std::span<const RowKey> keys,
                      const std::function<void(StoredRow&&)>& handle) override;
    Result<void> destinations(const RelationshipDescription& relationship, std::span<const RowKey> owners,
                              const std::function<void(RowKey owner, RowKey destination)>& handle) override;

    Result<void> begin() override;
    Result<RowKey> insert(const EntityDescription& entity, RowKey key, std::span<const Value> values) override;
    Result<WriteOutcome> update(const EntityDescription& entity, RowKey key, std::int64_t expectedVersion,
                                std::span<const std::size_t> changed, std::span<const Value> values) override;
    Result<WriteOutcome> remove(const EntityDescription& entity, RowKey key, std::int64_t expectedVersion) override;
    Result<void> link(const RelationshipDescription& relationship, RowKey owner, RowKey destination) override;
    Result<void> unlink(const RelationshipDescription& relationship, RowKey owner, RowKey destination) override;
    Result<std::int64_t> appendHistory(const HistoryRow& row) override;
    bool keepsHistory() const noexcept override { return m_layout->keepsHistory; }
    std::span<const std::string> historyKeptAttributes() const noexcept override { return m_layout->keptAttributes; }
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
    Result<WriteOutcome> outcome(const EntityTable& table, RowKey key);
    Result<void> writeStamps();
    void endTransaction() noexcept;
    /// Remembers that this transaction has failed.
    Error failed(Error error);

    std::shared_ptr<StoreFile> m_store;
    std::unique_ptr<Connection> m_connection;
    std::shared_ptr<const StoreLayout> m_layout;
    bool m_inTransaction = false;
    std::optional<Error> m_failure;  // of the open transaction
    std::vector<KeyCounter> m_keys;  // of the open transaction, by the entity's place
    KeyCounter m_sequences;          // the history's
    std::vector<bool> m_touched;     // watches that the open transaction touched
    StoredForm m_form;               // used again for each value

    // Statements held while a transaction is open, so that a long save looks each up once.
    std::vector<StatementLease> m_inserts;  // by the entity's place
    struct {
        const EntityTable* table = nullptr;
        std::vector<std::size_t> columns;
        StatementLease statement;
    } m_update;  // the last one: objects of one save tend to change alike
    StatementLease m_appendHistory;
};

}  // namespace velkor::NS::sqlite
