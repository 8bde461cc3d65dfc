#include "objectstore/sqlite/Connection.h"

#include <cmath>

#include "objectstore/sqlite/Collation.h"
#include "objectstore/sqlite/StoreFailure.h"
#include "objectstore/sqlite/WriteCache.h"

namespace velkor::NS::sqlite {

namespace {

constexpr std::size_t mostCachedStatements = 200;
// Random identifiers touch pages all over their index; SQLite's own 2 MB thrash from some 40,000 rows on.
constexpr int cacheKibibytes = 32 * 1024;
// A checkpoint waits for the disk twice and writes each page once, however often the log holds it: a log of 16 MB makes it rare,
// and still lies within the first block of the log's index.
constexpr int checkpointPages = 4000;
// A log that one large save has blown up shrinks to this after its checkpoint.
constexpr int keptLogBytes = 16 << 20;

std::string settingsSQL(const ConnectionSettings& settings) {
    return "PRAGMA synchronous=" + std::string(settings.fullSync ? "FULL" : "NORMAL") + "; PRAGMA cache_size=-" +
           std::to_string(cacheKibibytes) + "; PRAGMA wal_autocheckpoint=" + std::to_string(checkpointPages) +
           "; PRAGMA journal_size_limit=" + std::to_string(keptLogBytes) +
           "; PRAGMA temp_store=MEMORY; PRAGMA trusted_schema=OFF; PRAGMA cell_size_check=ON";
}

}  // namespace

StatementLease& StatementLease::operator=(StatementLease&& other) noexcept {
    if (this != &other) {
        end();
        m_connection = other.m_connection;
        m_entry = std::move(other.m_entry);
    }
    return *this;
}

void StatementLease::end() noexcept {
    if (!m_entry.empty()) m_connection->giveBack(std::move(m_entry));
}

Connection::Connection(sqlite3* handle, std::filesystem::path file) : m_handle(handle), m_file(std::move(file)) {}

Result<std::unique_ptr<Connection>> Connection::open(const std::filesystem::path& file, const ConnectionSettings& settings) {
    sqlite3* handle = nullptr;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
    const int code = sqlite3_open_v2(file.c_str(), &handle, flags, nullptr);
    if (!handle) return failureOfCode(file, SQLITE_NOMEM, sqlite3_errstr(SQLITE_NOMEM), 0);
    std::unique_ptr<Connection> connection(new Connection(handle, file));
    if (code != SQLITE_OK) return connection->failure(code);
    sqlite3_busy_timeout(handle, static_cast<int>(std::lround(settings.busyTimeoutSeconds * 1000)));
    sqlite3_db_config(handle, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    // A column that another process's migration has dropped is an error, not a text of its name.
    sqlite3_db_config(handle, SQLITE_DBCONFIG_DQS_DML, 0, nullptr);
    sqlite3_db_config(handle, SQLITE_DBCONFIG_DQS_DDL, 0, nullptr);
    if (const int added = addDecimalCollation(handle); added != SQLITE_OK) return connection->failure(added);
    if (auto set = connection->execute(settingsSQL(settings)); !set) return set.error();
    return connection;
}

Connection::~Connection() {
    m_writeCache.reset();
    m_statements.clear();
    sqlite3_close_v2(m_handle);
}

Result<void> Connection::execute(const std::string& sql) {
    const int code = sqlite3_exec(m_handle, sql.c_str(), nullptr, nullptr, nullptr);
    if (code != SQLITE_OK) return failure(code);
    return {};
}

Result<StatementLease> Connection::prepare(std::string_view sql) {
    if (auto known = m_statements.find(sql); known != m_statements.end())
        return StatementLease(*this, m_statements.extract(known));
    auto made = makeStatement(sql);
    if (!made) return made.error();
    StatementCache fresh;
    fresh.emplace(sql, std::move(made).value());
    return StatementLease(*this, fresh.extract(fresh.begin()));
}

Result<Statement> Connection::makeStatement(std::string_view sql) {
    sqlite3_stmt* handle = nullptr;
    const int code =
        sqlite3_prepare_v3(m_handle, sql.data(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT, &handle, nullptr);
    if (code != SQLITE_OK) return failure(code);
    return Statement(handle);
}

void Connection::giveBack(StatementCache::node_type entry) noexcept {
    entry.mapped().clear();
    if (m_statements.size() >= mostCachedStatements) m_statements.clear();
    m_statements.insert(std::move(entry));  // a nested use of the same text may have come back first: then this one ends here
}

Result<void> Connection::run(Statement& statement) {
    int code;
    while ((code = statement.step()) == SQLITE_ROW) {
    }
    if (code == SQLITE_DONE) return {};
    Error error = failure(code);
    statement.reset();
    return error;
}

Result<std::int64_t> Connection::integer(std::string_view sql) {
    auto lease = prepare(sql);
    if (!lease) return lease.error();
    std::int64_t found = 0;
    const int code = lease.value()->step();
    if (code == SQLITE_ROW) {
        found = lease.value()->integer(0);
    } else if (code != SQLITE_DONE) {
        return failure(code);
    }
    return found;
}

std::uint32_t Connection::dataVersion() const noexcept {
    std::uint32_t version = 0;
    sqlite3_file_control(m_handle, "main", SQLITE_FCNTL_DATA_VERSION, &version);
    return version;
}

WriteCache& Connection::writeCache(const StoreSchema& schema) {
    if (!m_writeCache) m_writeCache = std::make_unique<WriteCache>(schema);
    return *m_writeCache;
}

sqlite3_file* Connection::openFile(int pointer) const noexcept {
    sqlite3_file* file = nullptr;
    sqlite3_file_control(m_handle, "main", pointer, &file);
    return file && file->pMethods ? file : nullptr;
}

Result<void> Connection::syncLog() {
    sqlite3_file* log = openFile(SQLITE_FCNTL_JOURNAL_POINTER);
    if (!log) return {};  // nothing was committed since the log was folded into the file
    const int code = log->pMethods->xSync(log, SQLITE_SYNC_FULL);
    if (code != SQLITE_OK) return failureOfCode(m_file, code, sqlite3_errstr(code), systemError(code));
    return {};
}

int Connection::systemError(int code) const noexcept {
    // After a failed commit the process's errno is that of the clearing up; the files keep their own.
    if ((code & 0xFF) == SQLITE_IOERR) {
        for (const int pointer : {SQLITE_FCNTL_JOURNAL_POINTER, SQLITE_FCNTL_FILE_POINTER}) {
            int error = 0;
            sqlite3_file* file = openFile(pointer);
            if (file && file->pMethods->xFileControl(file, SQLITE_FCNTL_LAST_ERRNO, &error) == SQLITE_OK && error != 0)
                return error;
        }
    }
    return sqlite3_system_errno(m_handle);
}

Error Connection::failure(int code) const {
    // A value too large to bind leaves no message with the connection.
    const char* message = sqlite3_extended_errcode(m_handle) == code ? sqlite3_errmsg(m_handle) : sqlite3_errstr(code);
    return failureOfCode(m_file, code, message, systemError(code));
}

}  // namespace velkor::NS::sqlite
