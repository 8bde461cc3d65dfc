#include "objectstore/sqlite/SQLiteStoreSession.h"

#include <algorithm>

#include "objectstore/sqlite/StoreFailure.h"
#include "platform/base/DurableStep.h"
#include "platform/base/Exception.h"

namespace velkor::NS::sqlite {

SQLiteStoreSession::SQLiteStoreSession(std::shared_ptr<StoreFile> store, std::unique_ptr<Connection> connection)
    : m_store(std::move(store)),
      m_connection(std::move(connection)),
      m_layout(m_store->layout()),
      m_sequences(historyCounter()) {}

SQLiteStoreSession::~SQLiteStoreSession() {
    rollback();
    m_store->giveBack(std::move(m_connection));
}

Error SQLiteStoreSession::failed(Error error) {
    if (!m_failure) m_failure = error;
    return error;
}

Result<void> SQLiteStoreSession::checkWritable() const {
    assertThat(m_inTransaction, "A store session writes between begin and commit only");
    if (m_failure) return *m_failure;
    return {};
}

Result<void> SQLiteStoreSession::begin() {
    assertThat(!m_inTransaction, "A store session has one transaction at a time");
    auto begun = m_connection->prepare("BEGIN IMMEDIATE");
    if (!begun) return begun.error();
    if (auto run = m_connection->run(*begun.value()); !run) return run;
    m_inTransaction = true;
    auto layout = m_store->currentLayout(*m_connection);
    if (!layout) {
        rollback();
        return layout.error();
    }
    m_layout = std::move(layout).value();
    m_touched.assign(m_layout->watches.size(), false);
    const StoreSchema& schema = m_store->schema();
    m_inserts.resize(schema.tableCount());
    m_keys.clear();
    for (std::size_t i = 0; i < schema.tableCount(); ++i) m_keys.emplace_back(schema.table(i).keys);
    m_sequences = historyCounter();
    return {};
}

Result<void> SQLiteStoreSession::commit() {
    if (auto writable = checkWritable(); !writable) return writable;
    if (auto written = writeStamps(); !written) return failed(written.error());
    durableStep("store commit");
    auto lease = m_connection->prepare("COMMIT");
    if (!lease) return failed(lease.error());
    if (auto run = m_connection->run(*lease.value()); !run) return failed(run.error());
    endTransaction();
    return {};
}

void SQLiteStoreSession::rollback() noexcept {
    if (!m_inTransaction) return;
    endTransaction();  // first: statements that are still held would keep their reads open
    // Some failures have rolled back already.
    if (m_connection->inTransaction()) (void)m_connection->execute("ROLLBACK").ok();
}

void SQLiteStoreSession::endTransaction() noexcept {
    for (StatementLease& insert : m_inserts) insert.end();
    m_update.statement.end();
    m_update.table = nullptr;
    m_appendHistory.end();
    m_failure.reset();
    m_inTransaction = false;
}

void SQLiteStoreSession::touched(const EntityDescription& entity, ChangeKind kind,
                                 std::span<const std::size_t> changedAttributes) {
    for (std::size_t i = 0; i < m_touched.size(); ++i) {
        if (!m_touched[i]) m_touched[i] = m_layout->watches[i].heeds(entity.index(), kind, changedAttributes);
    }
}

Result<void> SQLiteStoreSession::writeStamps() {
    for (std::size_t i = 0; i < m_touched.size(); ++i) {
        if (!m_touched[i]) continue;
        // A stamp that nobody has seen need not move: most saves write nothing here.
        auto written = m_connection->run("UPDATE watches SET stamp=stamp+1 WHERE name=? AND seen=stamp",
                                         [&](Statement& statement) { statement.bindText(1, m_layout->watches[i].name()); });
        if (!written) return written;
    }
    return {};
}

Result<RowKey> SQLiteStoreSession::reserveKeys(const EntityDescription& entity, std::size_t count) {
    const EntityTable* table = m_store->schema().table(entity);
    if (!table) return storeError(StoreError::badRequest, "The entity " + entity.name() + " is not of this store's model.");
    const bool own = !m_inTransaction;
    if (own) {
        if (auto begun = begin(); !begun) return begun.error();
    } else if (auto writable = checkWritable(); !writable) {
        return writable.error();
    }
    auto first = m_keys[entity.index()].reserve(*m_connection, static_cast<std::int64_t>(count));
    if (!first) {
        Error error = failed(first.error());
        if (own) rollback();
        return error;
    }
    if (own) {
        if (auto committed = commit(); !committed) {
            rollback();
            return committed.error();
        }
    }
    return first;
}

}  // namespace velkor::NS::sqlite
