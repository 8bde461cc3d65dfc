#pragma once

#include <condition_variable>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/base/DurableStep.h"
#include "platform/base/Result.h"
#include "service/Statement.h"

namespace velkor::service {

/// The database cannot do what it was asked. The text is made for the log: it holds neither SQL nor values.
class DatabaseFailure : public std::exception {
public:
    explicit DatabaseFailure(std::string text) : m_text(std::move(text)) {}
    const char* what() const noexcept override { return m_text.c_str(); }

private:
    std::string m_text;
};

/// Turns the failure that is being handled into a DatabaseFailure.
[[noreturn]] void rethrowAsDatabaseFailure();
/// Calls the function; what the database layer raises leaves as DatabaseFailure.
template <class F>
auto translateFailures(F&& function) {
    try {
        return function();
    } catch (...) {
        rethrowAsDatabaseFailure();
    }
}

/// One connection with its prepared statements. One thread at a time.
class Connection {
public:
    explicit Connection(std::unique_ptr<soci::session> session);
    ~Connection();

    /// Runs a statement without results; how many rows it touched.
    template <class... A>
    std::int64_t run(const Sql& sql, const A&... arguments) {
        return statement(sql).run(arguments...);
    }
    /// The rows of a statement with results.
    template <class... A>
    Rows query(const Sql& sql, const A&... arguments) {
        auto& prepared = statement(sql);
        prepared.start(arguments...);
        return Rows(prepared);
    }
    /// A text that is run once, such as one of the schema.
    void runOnce(const std::string& text);

private:
    /// The prepared form of `sql`, which must live as long as the connection.
    Statement& statement(const Sql& sql);

    std::unique_ptr<soci::session> m_session;
    std::unordered_map<const Sql*, std::unique_ptr<Statement>> m_statements;
};

/// The service's database: one connection that writes and several that read. Any thread. What differs between database products
/// is known here and nowhere else.
class Database {
public:
    /// Opens the embedded database of the directory, which is made when missing, and brings its tables up to date.
    static NS::Result<std::unique_ptr<Database>> open(const std::string& directory);
    ~Database();

    /// Runs the body in a transaction that sees one state of the database and changes nothing.
    template <class F>
    auto read(F&& body) {
        Reader reader(*this);
        return body(reader.connection());
    }

    /// Runs the body in the one writing transaction; what it did is durable when `write` returns, and undone when the body
    /// raises. `committed` is called after the commit, still as the only writer.
    template <class F, class C>
    auto write(F&& body, C&& committed) {
        Writer writer(*this);
        auto result = body(writer.connection());
        writer.commit();
        committed();
        return result;
    }
    template <class F>
    auto write(F&& body) {
        return write(std::forward<F>(body), [] {});
    }

private:
    class Reader {
    public:
        explicit Reader(Database& database);
        ~Reader();
        Connection& connection() { return *m_connection; }

    private:
        Database& m_database;
        std::unique_ptr<Connection> m_connection;
    };

    class Writer {
    public:
        explicit Writer(Database& database);
        ~Writer();
        Connection& connection() { return *m_database.m_writer; }
        void commit();

    private:
        Database& m_database;
        std::unique_lock<std::mutex> m_turn;
        bool m_open = true;
    };

    explicit Database(std::string file) : m_file(std::move(file)) {}
    std::unique_ptr<Connection> connect(bool writes) const;
    void prepare();

    const std::string m_file;
    std::mutex m_writeMutex;  // guards m_writer
    std::unique_ptr<Connection> m_writer;
    std::mutex m_readersMutex;  // guards m_readers
    std::vector<std::unique_ptr<Connection>> m_readers;
};

}  // namespace velkor::service
