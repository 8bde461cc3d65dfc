#include "service/Database.h"

#include <soci/soci.h>
#include <soci/sqlite3/soci-sqlite3.h>

#include <filesystem>

#include "platform/base/SystemLog.h"
#include "service/Tables.h"

namespace velkor::service {
namespace {

constexpr Sql beginWrite{"BEGIN IMMEDIATE", ":"};
constexpr Sql beginRead{"BEGIN", ":"};
constexpr Sql commitWork{"COMMIT", ":"};
constexpr Sql rollbackWork{"ROLLBACK", ":"};

}  // namespace

void rethrowAsDatabaseFailure() {
    try {
        throw;
    } catch (const soci::sqlite3_soci_error& error) {
        throw DatabaseFailure(sqlite_api::sqlite3_errstr(error.result()));
    } catch (const soci::soci_error& error) {
        throw DatabaseFailure("database failure of category " + std::to_string(error.get_error_category()));
    }
}

Connection::Connection(std::unique_ptr<soci::session> session) : m_session(std::move(session)) {}
Connection::~Connection() = default;

Statement& Connection::statement(const Sql& sql) {
    auto& place = m_statements[&sql];
    if (!place) place = std::make_unique<Statement>(*m_session, sql);
    return *place;
}

void Connection::runOnce(const std::string& text) {
    translateFailures([&] { m_session->once << text; });
}

NS::Result<std::unique_ptr<Database>> Database::open(const std::string& directory) {
    auto failure = [](const std::string& text) { return NS::Error::withDescription(NS::PlatformErrorDomain, 1, text); };
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (error) return failure("cannot make the directory " + directory + ": " + error.message());
    const std::string file = directory + "/velkord.sqlite";
    if (file.find('"') != file.npos) return failure("the data directory's name must not hold a quotation mark");
    std::unique_ptr<Database> database(new Database(file));
    try {
        database->prepare();
    } catch (const DatabaseFailure& raised) {
        return failure("cannot open the database " + file + ": " + raised.what());
    }
    std::filesystem::permissions(file, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write, error);
    return database;
}

Database::~Database() = default;

std::unique_ptr<Connection> Database::connect(bool writes) const {
    return translateFailures([&] {
        auto session = std::make_unique<soci::session>(soci::sqlite3, "dbname=\"" + m_file + "\" timeout=10");
        auto connection = std::make_unique<Connection>(std::move(session));
        if (writes) {
            connection->runOnce("PRAGMA page_size=8192");
            connection->runOnce("PRAGMA journal_mode=WAL");
        }
        connection->runOnce("PRAGMA synchronous=FULL");
        // A large push stays in memory until it is committed; memory is taken as it is needed.
        connection->runOnce(writes ? "PRAGMA cache_size=-262144" : "PRAGMA cache_size=-16384");
        return connection;
    });
}

void Database::prepare() {
    m_writer = connect(true);
    m_writer->run(beginWrite);
    bringTablesUpToDate(*m_writer, TableDialect{.serialKey = "INTEGER PRIMARY KEY", .givenKey = "INTEGER PRIMARY KEY"});
    m_writer->run(commitWork);
}

Database::Reader::Reader(Database& database) : m_database(database) {
    {
        std::lock_guard guard(database.m_readersMutex);
        if (!database.m_readers.empty()) {
            m_connection = std::move(database.m_readers.back());
            database.m_readers.pop_back();
        }
    }
    if (!m_connection) m_connection = database.connect(false);
    m_connection->run(beginRead);
}

Database::Reader::~Reader() {
    try {
        m_connection->run(commitWork);
    } catch (const DatabaseFailure& failure) {
        NS::systemLog(std::string("velkord: cannot end reading: ") + failure.what());
        return;  // the connection is given up
    }
    std::lock_guard guard(m_database.m_readersMutex);
    m_database.m_readers.push_back(std::move(m_connection));
}

Database::Writer::Writer(Database& database) : m_database(database), m_turn(database.m_writeMutex) {
    m_database.m_writer->run(beginWrite);
}

Database::Writer::~Writer() {
    if (!m_open) return;
    try {
        m_database.m_writer->run(rollbackWork);
    } catch (const DatabaseFailure& failure) {
        NS::systemLog(std::string("velkord: cannot undo a transaction: ") + failure.what());
    }
}

void Database::Writer::commit() {
    NS::durableStep("service commit");
    m_database.m_writer->run(commitWork);
    m_open = false;
}

}  // namespace velkor::service
