#include "objectstore/sqlite/SQLiteStoreSession.h"

#include <algorithm>

#include "objectstore/sqlite/StoreFailure.h"
#include "platform/base/DurableStep.h"
#include "platform/base/Exception.h"

namespace velkor::NS::sqlite {

SQLiteStoreSession::SQLiteStoreSession(std::shared_ptr<StoreFile> store, std::unique_ptr<Connection> connection)
    : m_store(std::move(store)), m_connection(std::move(connection)), m_cache(m_connection->writeCache(m_store->schema())) {}

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
    auto begin = ready(m_cache.begin, [] { return "BEGIN IMMEDIATE"; });
    Result<void> begun = begin ? runBound(*begin.value()) : begin.error();
    m_failure.reset();  // there is no transaction to fail
    if (!begun) return begun;
    m_inTransaction = true;
    m_cache.beginTransaction(*m_connection);
    if (!m_cache.layout) {
        auto layout = m_store->currentLayout(*m_connection);
        if (!layout) {
            rollback();
            return layout.error();
        }
        m_cache.layout = std::move(layout).value();
    }
    m_touched.assign(m_cache.layout->watches.size(), false);
    m_cache.movedStamps.resize(m_touched.size());
    return {};
}

Result<void> SQLiteStoreSession::commit() {
    if (auto writable = checkWritable(); !writable) return writable;
    if (auto written = writeHistory(); !written) return written;
    if (auto written = writeStamps(); !written) return failed(written.error());
    durableStep("store commit");
    auto statement = ready(m_cache.commit, [] { return "COMMIT"; });
    if (!statement) return statement.error();
    if (auto run = runBound(*statement.value()); !run) return run;
    m_cache.committed(*m_connection);
    endTransaction();
    return {};
}

void SQLiteStoreSession::rollback() noexcept {
    if (!m_inTransaction) return;
    endTransaction();
    m_cache.rolledBack();
    // Some failures have rolled back already.
    if (m_connection->inTransaction()) (void)m_connection->execute("ROLLBACK").ok();
}

void SQLiteStoreSession::endTransaction() noexcept {
    m_history.clear();
    m_failure.reset();
    m_inTransaction = false;
}

void SQLiteStoreSession::touched(const EntityDescription& entity, ChangeKind kind,
                                 std::span<const std::size_t> changedAttributes) {
    for (std::size_t i = 0; i < m_touched.size(); ++i) {
        if (!m_touched[i]) m_touched[i] = m_cache.layout->watches[i].heeds(entity.index(), kind, changedAttributes);
    }
}

Result<void> SQLiteStoreSession::writeStamps() {
    for (std::size_t i = 0; i < m_touched.size(); ++i) {
        // A stamp that nobody has seen since need not move: most saves write nothing here.
        if (!m_touched[i] || m_cache.movedStamps[i]) continue;
        auto written = m_connection->run("UPDATE watches SET stamp=stamp+1 WHERE name=? AND seen=stamp",
                                         [&](Statement& statement) { statement.bindText(1, m_cache.layout->watches[i].name()); });
        if (!written) return written;
        m_cache.movedStamps[i] = true;
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
    auto first = m_cache.keys(entity).reserve(*m_connection, static_cast<std::int64_t>(count));
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
