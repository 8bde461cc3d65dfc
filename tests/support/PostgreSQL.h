// The PostgreSQL server of a run of the tests, as a test sees it.
#pragma once

#include <gtest/gtest.h>
#include <libpq-fe.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>

namespace velkor::test {

/// The environment names a file that holds the server's URL when a test shall use one.
inline constexpr const char* postgresqlVariable = "VELKOR_TEST_POSTGRESQL";
inline bool isOnPostgreSQL() { return std::getenv(postgresqlVariable) != nullptr; }

/// A database of the test's own on that server, gone at its end.
class PostgreSQLDatabase {
public:
    PostgreSQLDatabase() {
        std::ifstream file(std::getenv(postgresqlVariable));
        std::getline(file, m_server);
        m_schema = "test_" + std::to_string(getpid()) + "_" + std::to_string(++s_count);
        run("CREATE SCHEMA " + m_schema);
    }
    ~PostgreSQLDatabase() {
        try {
            run("DROP SCHEMA " + m_schema + " CASCADE");
        } catch (const std::exception& error) {
            ADD_FAILURE() << "the test's database stays: " << error.what();
        }
    }
    PostgreSQLDatabase(const PostgreSQLDatabase&) = delete;
    PostgreSQLDatabase& operator=(const PostgreSQLDatabase&) = delete;

    /// As `velkord --database` takes it.
    std::string url() const { return m_server + "&application_name=" + m_schema + "&options=-csearch_path%3D" + m_schema; }
    /// Ends all other connections to it.
    void endConnections() const {
        run("SELECT count(pg_terminate_backend(pid, 10000)) FROM pg_stat_activity WHERE application_name = '" + m_schema +
            "' AND pid <> pg_backend_pid()");
    }
    /// Runs a statement as the administrator; the first column of its first row, if it has any.
    std::string run(const std::string& sql) const {
        const std::unique_ptr<PGconn, decltype(&PQfinish)> connection(PQconnectdb(url().c_str()), PQfinish);
        PQsetErrorVerbosity(connection.get(), PQERRORS_TERSE);
        const std::unique_ptr<PGresult, decltype(&PQclear)> result(
            PQexec(connection.get(), ("SET client_min_messages = warning; " + sql).c_str()), PQclear);
        const auto status = PQresultStatus(result.get());
        if (status == PGRES_TUPLES_OK) return PQntuples(result.get()) > 0 ? PQgetvalue(result.get(), 0, 0) : "";
        if (status != PGRES_COMMAND_OK) throw std::runtime_error(PQerrorMessage(connection.get()));
        return {};
    }

private:
    std::string m_server, m_schema;
    static inline int s_count = 0;
};

}  // namespace velkor::test
