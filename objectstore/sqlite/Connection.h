// One SQLite connection with its prepared statements. Internal to the object store.
#pragma once

#include <sqlite3.h>

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "objectstore/sqlite/Statement.h"
#include "platform/base/Result.h"

namespace velkor::NS::sqlite {

class Connection;
class StoreSchema;
class WriteCache;

struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const noexcept { return std::hash<std::string_view>()(text); }
};
using StatementCache = std::unordered_map<std::string, Statement, TextHash, std::equal_to<>>;

/// A statement borrowed from its connection's cache; goes back, reset, when the lease ends. The connection must outlive it.
class StatementLease {
public:
    StatementLease(Connection& connection, StatementCache::node_type entry) noexcept
        : m_connection(&connection), m_entry(std::move(entry)) {}
    StatementLease(StatementLease&& other) noexcept = default;
    StatementLease& operator=(StatementLease&& other) noexcept;
    ~StatementLease() { end(); }
    Statement* operator->() const noexcept { return &m_entry.mapped(); }
    Statement& operator*() const noexcept { return m_entry.mapped(); }
    void end() noexcept;

private:
    Connection* m_connection = nullptr;
    StatementCache::node_type m_entry;
};

struct ConnectionSettings {
    double busyTimeoutSeconds = 5;
    bool fullSync = false;
};

/// Used by one thread at a time.
class Connection {
public:
    /// Opens an existing file for reading and writing.
    static Result<std::unique_ptr<Connection>> open(const std::filesystem::path& file, const ConnectionSettings& settings);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Runs statements without parameters.
    Result<void> execute(const std::string& sql);
    Result<StatementLease> prepare(std::string_view sql);
    /// A statement for the caller to keep; the connection must outlive it.
    Result<Statement> makeStatement(std::string_view sql);
    /// Steps a statement that gives no rows (any it gives are passed over).
    Result<void> run(Statement& statement);
    /// Prepares, binds and runs: bind(statement).
    template <class Bind>
    Result<void> run(std::string_view sql, Bind&& bind) {
        auto lease = prepare(sql);
        if (!lease) return lease.error();
        bind(*lease.value());
        return run(*lease.value());
    }
    /// Calls handle(statement) for each row; handle returns nothing, or a Result<void> whose error ends the reading.
    template <class Handle>
    Result<void> eachRow(Statement& statement, Handle&& handle) {
        int code;
        while ((code = statement.step()) == SQLITE_ROW) {
            if constexpr (std::is_void_v<std::invoke_result_t<Handle, Statement&>>) {
                handle(statement);
            } else if (auto handled = handle(statement); !handled) {
                return handled.error();
            }
        }
        if (code != SQLITE_DONE) return failure(code);
        return {};
    }
    /// The first column of the first row, 0 when there is none.
    Result<std::int64_t> integer(std::string_view sql);

    std::int64_t changes() const noexcept { return sqlite3_changes64(m_handle); }
    bool inTransaction() const noexcept { return sqlite3_get_autocommit(m_handle) == 0; }
    bool readOnly() const noexcept { return sqlite3_db_readonly(m_handle, "main") == 1; }
    /// Moves with every commit, whoever made it; to be compared within a transaction.
    std::uint32_t dataVersion() const noexcept;
    /// Of the one schema that the connection serves.
    WriteCache& writeCache(const StoreSchema& schema);
    /// Makes the log durable (fsync).
    Result<void> syncLog();

    const std::filesystem::path& file() const noexcept { return m_file; }
    /// The error of an SQLite result code, saying what is wrong with the file.
    Error failure(int code) const;

private:
    friend class StatementLease;
    Connection(sqlite3* handle, std::filesystem::path file);
    void giveBack(StatementCache::node_type entry) noexcept;
    sqlite3_file* openFile(int pointer) const noexcept;
    /// The system's error number behind a failure; 0 when there is none.
    int systemError(int code) const noexcept;

    sqlite3* m_handle;
    std::filesystem::path m_file;
    StatementCache m_statements;
    std::unique_ptr<WriteCache> m_writeCache;
};

}  // namespace velkor::NS::sqlite
