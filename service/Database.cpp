#include "service/Database.h"

#include <fcntl.h>
#include <soci/postgresql/soci-postgresql.h>
#include <soci/soci.h>
#include <soci/sqlite3/soci-sqlite3.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "platform/base/DurableStep.h"
#include "platform/base/SystemLog.h"
#include "platform/persistence/FileDescriptor.h"
#include "service/DatabaseProduct.h"

namespace velkor::service {
namespace {

using Remedy = DatabaseFailure::Remedy;

constexpr Sql commitWork{"COMMIT", ":"};
constexpr Sql rollbackWork{"ROLLBACK", ":"};
constexpr int mostTimes = 5;  // that one transaction is tried

NS::Error openFailure(const std::string& text) { return NS::Error::withDescription(NS::PlatformErrorDomain, 1, text); }

std::string fileOf(const std::string& directory) { return directory + "/velkord.sqlite"; }

/// Sees to it that nobody else can read the file, which is made when missing: what the database writes beside it gets the same
/// permissions. It is opened only when it is new, since closing it would end the locks that this process has on it.
bool makePrivate(const std::string& file) {
    constexpr mode_t mine = S_IRUSR | S_IWUSR;
    if (NS::FileDescriptor(::open(file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mine))) return true;
    struct stat status {};
    if (errno != EEXIST || ::stat(file.c_str(), &status) != 0) return false;
    return (status.st_mode & ACCESSPERMS) == mine || ::chmod(file.c_str(), mine) == 0;
}

/// What helps against a failure with this SQLSTATE.
Remedy remedyFor(std::string_view state) {
    if (state == "40001" || state == "40P01") return Remedy::again;  // serialisation failure, deadlock
    // The connection broke, was ended by the server, or hung within a transaction for too long; without a state the server did
    // not answer at all.
    const bool lost = state.starts_with(' ') || state.starts_with("08") || state.starts_with("57P") || state == "25P03";
    return lost ? Remedy::connectAnew : Remedy::none;
}

}  // namespace

void rethrowAsDatabaseFailure() {
    try {
        throw;
    } catch (const soci::sqlite3_soci_error& error) {
        throw DatabaseFailure(sqlite_api::sqlite3_errstr(error.result()));
    } catch (const soci::postgresql_soci_error& error) {
        const auto state = error.sqlstate();
        throw DatabaseFailure(state.starts_with(' ') ? "the connection is lost" : "SQLSTATE " + state, remedyFor(state));
    } catch (const soci::soci_error& error) {
        throw DatabaseFailure("database failure of category " + std::to_string(error.get_error_category()));
    }
}

Rows::~Rows() {
    if (!m_statement) return;
    try {
        m_connection.noted([&] { m_statement->finish(); });
    } catch (...) {  // the connection raises it again
    }
}

bool Rows::next() {
    return m_connection.noted([&] { return m_statement->next(); });
}

Connection::Connection(std::unique_ptr<soci::session> session) : m_session(std::move(session)) {}
Connection::~Connection() = default;

Statement& Connection::statement(const Sql& sql) {
    auto& place = m_statements[&sql];
    if (!place) place = std::make_unique<Statement>(*m_session, sql);
    return *place;
}

void Connection::runOnce(const std::string& text) {
    noted([&] { translateFailures([&] { m_session->once << text; }); });
}

NS::Result<std::unique_ptr<Database>> Database::open(const std::string& directory) {
    std::error_code error;
    if (std::filesystem::create_directories(directory, error)) {
        std::filesystem::permissions(directory, std::filesystem::perms::owner_all, error);
    }
    if (error) return openFailure("cannot make the directory " + directory + ": " + error.message());
    const std::string file = fileOf(directory);
    if (file.find('"') != file.npos) return openFailure("the data directory's name must not hold a quotation mark");
    if (!makePrivate(file)) return openFailure("cannot make the database " + file + " private: " + std::strerror(errno));
    return prepared(embeddedDatabase(file), file);
}

bool Database::isIn(const std::string& directory) { return std::filesystem::exists(fileOf(directory)); }

NS::Result<std::unique_ptr<Database>> Database::openServer(const std::string& url) {
    try {
        return prepared(serverDatabase(url), "on the server");
    } catch (const DatabaseFailure& failure) {
        return openFailure(failure.what());
    }
}

NS::Result<std::unique_ptr<Database>> Database::prepared(std::unique_ptr<DatabaseProduct> product, const std::string& name) {
    std::unique_ptr<Database> database(new Database(std::move(product)));
    try {
        database->write(nobody, [&](Connection& connection) {
            bringTablesUpToDate(connection, database->m_product->tableDialect());
            return true;
        });
    } catch (const DatabaseFailure& failure) {
        return openFailure("cannot open the database " + name + ": " + failure.what());
    }
    return database;
}

Database::Database(std::unique_ptr<DatabaseProduct> product) : m_product(std::move(product)), m_turns(m_product->writers()) {}
Database::~Database() = default;

std::unique_ptr<Connection> Database::take(Pool& pool) {
    {
        std::lock_guard guard(pool.mutex);
        if (!pool.idle.empty()) {
            auto connection = std::move(pool.idle.back());
            pool.idle.pop_back();
            return connection;
        }
    }
    return m_product->connect(pool.writes);
}

void Database::giveBack(Pool& pool, std::unique_ptr<Connection> connection) {
    std::lock_guard guard(pool.mutex);
    pool.idle.push_back(std::move(connection));
}

bool Database::remedies(const DatabaseFailure& failure, int times) {
    if (failure.remedy() == Remedy::none || times >= mostTimes) return false;
    if (failure.remedy() == Remedy::connectAnew) {
        // What happened to one connection has probably happened to all.
        for (Pool* pool : {&m_readers, &m_writers}) {
            std::lock_guard guard(pool->mutex);
            pool->idle.clear();
        }
    }
    return true;
}

Database::Reader::Reader(Database& database) : m_database(database), m_connection(database.take(database.m_readers)) {
    m_database.m_product->beginReading(*m_connection);
}

Database::Reader::~Reader() {
    if (m_connection->hasFailed()) return;
    try {
        m_connection->run(commitWork);
        m_database.giveBack(m_database.m_readers, std::move(m_connection));
    } catch (const DatabaseFailure& failure) {
        NS::systemLog(std::string("velkord: cannot end reading: ") + failure.what());
    }
}

Database::Writer::Writer(Database& database, std::int64_t user)
    : m_database(database),
      m_turn(database.m_turns[static_cast<std::size_t>(user) % database.m_turns.size()]),
      m_connection(database.take(database.m_writers)) {
    m_database.m_product->beginWriting(*m_connection, user);
}

Database::Writer::~Writer() {
    if (m_connection->hasFailed()) return;
    try {
        if (m_open) m_connection->run(rollbackWork);
        m_database.giveBack(m_database.m_writers, std::move(m_connection));
    } catch (const DatabaseFailure& failure) {
        NS::systemLog(std::string("velkord: cannot undo a transaction: ") + failure.what());
    }
}

void Database::Writer::commit() {
    NS::durableStep("service commit");
    if (m_connection->hasFailed()) throw DatabaseFailure("a transaction with a failure in it cannot be committed");
    try {
        m_connection->run(commitWork);
    } catch (const DatabaseFailure& failure) {
        // Whether a commit whose answer got lost took place, nobody knows: the client asks again.
        if (failure.remedy() == Remedy::connectAnew) throw DatabaseFailure(failure.what());
        throw;
    }
    m_open = false;
}

}  // namespace velkor::service
