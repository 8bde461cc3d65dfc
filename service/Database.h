#pragma once

#include <cstdint>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/base/Result.h"
#include "service/Statement.h"

namespace velkor::service {

/// The database cannot do what it was asked. The text is made for the log: it holds neither SQL nor values.
class DatabaseFailure : public std::exception {
public:
    /// What may help: nothing, the same transaction again, or the same on a new connection.
    enum class Remedy { none, again, connectAnew };

    explicit DatabaseFailure(std::string text, Remedy remedy = Remedy::none) : m_text(std::move(text)), m_remedy(remedy) {}
    const char* what() const noexcept override { return m_text.c_str(); }
    Remedy remedy() const noexcept { return m_remedy; }

private:
    std::string m_text;
    Remedy m_remedy;
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

class Connection;

/// The rows of one execution; gives them up at the end of its life.
class Rows {
public:
    Rows(Connection& connection, Statement& statement) : m_connection(connection), m_statement(&statement) {}
    Rows(Rows&& other) noexcept : m_connection(other.m_connection), m_statement(std::exchange(other.m_statement, nullptr)) {}
    Rows& operator=(Rows&&) = delete;
    ~Rows();

    bool next();
    std::int64_t integer(std::size_t column) const { return m_statement->integer(column); }
    std::string& text(std::size_t column) { return m_statement->text(column); }

private:
    Connection& m_connection;
    Statement* m_statement;
};

/// One connection with its prepared statements. One thread at a time. Once something has failed it is good for nothing more,
/// since the database may have undone the transaction already: whatever is asked of it raises the same failure, and what is open
/// on it is undone at its end.
class Connection {
public:
    explicit Connection(std::unique_ptr<soci::session> session);
    ~Connection();

    /// Runs a statement without results; how many rows it touched.
    template <class... A>
    std::int64_t run(const Sql& sql, const A&... arguments) {
        return noted([&] { return statement(sql).run(arguments...); });
    }
    /// The rows of a statement with results.
    template <class... A>
    Rows query(const Sql& sql, const A&... arguments) {
        return noted([&] {
            auto& prepared = statement(sql);
            prepared.start(arguments...);
            return Rows(*this, prepared);
        });
    }
    /// A text that is run once, such as one of the schema.
    void runOnce(const std::string& text);

    bool hasFailed() const { return m_failure.has_value(); }

private:
    friend class Rows;
    template <class F>
    auto noted(F&& function) {
        if (m_failure) throw *m_failure;
        try {
            return function();
        } catch (const DatabaseFailure& failure) {
            m_failure = failure;
            throw;
        } catch (...) {
            m_failure.emplace("a statement was broken off");
            throw;
        }
    }
    /// The prepared form of `sql`, which must live as long as the connection.
    Statement& statement(const Sql& sql);

    std::unique_ptr<soci::session> m_session;
    std::unordered_map<const Sql*, std::unique_ptr<Statement>> m_statements;
    std::optional<DatabaseFailure> m_failure;
};

class DatabaseProduct;

/// The service's database: connections that write and connections that read. Any thread. What differs between database products
/// is known in the files of this name and nowhere else.
class Database {
public:
    /// Opens the embedded database of the directory, which is made when missing, and brings its tables up to date.
    static NS::Result<std::unique_ptr<Database>> open(const std::string& directory);
    /// Whether the directory has an embedded database.
    static bool isIn(const std::string& directory);
    /// Opens the PostgreSQL database that the URL names, which other processes may use at the same time, and brings its tables up
    /// to date. The error says nothing of passwords.
    static NS::Result<std::unique_ptr<Database>> openServer(const std::string& url);
    ~Database();

    /// The writer that stands for no user.
    static constexpr std::int64_t nobody = 0;

    /// Runs the body in a transaction that sees one state of the database and changes nothing. The body runs again when the
    /// database asks for it.
    template <class F>
    auto read(F&& body) {
        return repeated([&] {
            Reader reader(*this);
            return body(reader.connection());
        });
    }

    /// Runs the body in the one transaction that writes for that user, in whatever process; it touches nothing of other users.
    /// What it did is durable when `write` returns, and undone when the body raises. The body runs again, after all it did was
    /// undone, when the database asks for it. `committed` is called after the commit, still as this process's only writer for
    /// that user.
    template <class F, class C>
    auto write(std::int64_t user, F&& body, C&& committed) {
        return repeated([&] {
            Writer writer(*this, user);
            auto result = body(writer.connection());
            writer.commit();
            committed();
            return result;
        });
    }
    template <class F>
    auto write(std::int64_t user, F&& body) {
        return write(user, std::forward<F>(body), [] {});
    }

private:
    /// Connections that nobody uses at the moment.
    struct Pool {
        const bool writes;
        std::mutex mutex{};  // guards idle
        std::vector<std::unique_ptr<Connection>> idle{};
    };

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
        Writer(Database& database, std::int64_t user);
        ~Writer();
        Connection& connection() { return *m_connection; }
        void commit();

    private:
        Database& m_database;
        std::unique_lock<std::mutex> m_turn;
        std::unique_ptr<Connection> m_connection;
        bool m_open = true;
    };

    explicit Database(std::unique_ptr<DatabaseProduct> product);
    static NS::Result<std::unique_ptr<Database>> prepared(std::unique_ptr<DatabaseProduct> product, const std::string& name);
    std::unique_ptr<Connection> take(Pool& pool);
    void giveBack(Pool& pool, std::unique_ptr<Connection> connection);
    /// Whether the work that failed shall be done again, for the n-th time.
    bool remedies(const DatabaseFailure& failure, int times);

    template <class F>
    auto repeated(F&& work) {
        for (int times = 1;; ++times) {
            try {
                return work();
            } catch (const DatabaseFailure& failure) {
                if (!remedies(failure, times)) throw;
            }
        }
    }

    const std::unique_ptr<DatabaseProduct> m_product;
    std::deque<std::mutex> m_turns;  // of the writers; a user's is always the same
    Pool m_readers{.writes = false}, m_writers{.writes = true};
};

}  // namespace velkor::service
