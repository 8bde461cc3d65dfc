#include <libpq-fe.h>
#include <soci/postgresql/soci-postgresql.h>
#include <soci/soci.h>

#include <algorithm>
#include <optional>

#include "service/DatabaseProduct.h"

namespace velkor::service {
namespace {

constexpr Sql beginServerRead{"BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY", ":"};
// Each statement sees the newest state, which is what must be seen once the turn has come.
constexpr Sql beginServerWrite{"BEGIN ISOLATION LEVEL READ COMMITTED READ WRITE", ":"};
constexpr Sql awaitTurn{"SELECT 1 FROM pg_advisory_xact_lock(:turn)", "i:i"};
constexpr Sql readEncoding{"SELECT pg_encoding_to_char(encoding) FROM pg_database WHERE datname = current_database()", ":t"};
constexpr std::int64_t turns = std::int64_t(0x76656C6B) << 32;  // keeps clear of other programs' advisory locks

constexpr std::size_t writersAtOnce = 64;

// With time-outs for servers that vanish without a word. What the URL says comes later and so holds.
constexpr const char* defaults =
    "application_name=velkord connect_timeout=10 keepalives_idle=30 keepalives_interval=10 tcp_user_timeout=60000 ";

// What is acknowledged is on disk, whatever the server's own habit. A process that vanishes or hangs within a transaction does
// not keep a user's turn for long.
constexpr const char* sessionSettings =
    "SELECT set_config('synchronous_commit', 'on', false) WHERE current_setting('synchronous_commit') = 'off'; "
    "SET client_min_messages = warning; SET tcp_keepalives_idle = 30; SET tcp_keepalives_interval = 10; "
    "SET tcp_keepalives_count = 3; SET idle_in_transaction_session_timeout = '5min'";

/// Whether nothing of the user and password can be taken for another part: then the client library's messages, which name host,
/// port, user and database, never show any of the password.
bool hasClearCredentials(std::string_view url) {
    const auto scheme = url.find("://");
    if (scheme == url.npos || (url.substr(0, scheme) != "postgresql" && url.substr(0, scheme) != "postgres")) return false;
    const auto rest = url.substr(scheme + 3);
    return std::count(rest.begin(), rest.end(), '@') == 0 ||
           (std::count(rest.begin(), rest.end(), '@') == 1 && rest.find('@') < rest.find('/'));
}

/// The URL as keywords and values; none when it is no URL.
std::optional<std::string> connectionWords(const std::string& url) {
    if (!hasClearCredentials(url)) return std::nullopt;
    char* complaint = nullptr;  // may quote the URL: never shown
    const std::unique_ptr<PQconninfoOption, decltype(&PQconninfoFree)> options(PQconninfoParse(url.c_str(), &complaint),
                                                                               PQconninfoFree);
    PQfreemem(complaint);
    if (!options) return std::nullopt;
    std::string words = defaults;
    for (const PQconninfoOption* option = options.get(); option->keyword; ++option) {
        if (!option->val) continue;
        words += std::string(option->keyword) + "='";
        for (const char c : std::string_view(option->val)) {
            if (c == '\'' || c == '\\') words += '\\';
            words += c;
        }
        words += "' ";
    }
    return words + "client_encoding=UTF8";
}

/// Several lines of a message as one.
std::string inOneLine(std::string text) {
    while (!text.empty() && text.back() == '\n') text.pop_back();
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c == '\n' || c == '\t'; }, ' ');
    return text;
}

class ServerDatabase : public DatabaseProduct {
public:
    explicit ServerDatabase(std::string words) : m_words(std::move(words)) {}

    std::size_t writers() const override { return writersAtOnce; }
    TableDialect tableDialect() const override {
        return {.serialKey = "BIGSERIAL PRIMARY KEY", .givenKey = "BIGINT PRIMARY KEY"};
    }

    std::unique_ptr<Connection> connect(bool) const override {
        std::unique_ptr<soci::session> session;
        try {
            session = std::make_unique<soci::session>(soci::postgresql, m_words);
        } catch (const soci::soci_error& error) {
            throw DatabaseFailure(inOneLine(error.get_error_message()), DatabaseFailure::Remedy::connectAnew);
        }
        auto connection = std::make_unique<Connection>(std::move(session));
        connection->runOnce(sessionSettings);
        auto encoding = connection->query(readEncoding);
        if (!encoding.next() || encoding.text(0) != "UTF8") throw DatabaseFailure("its encoding is not UTF8");
        return connection;
    }

    void beginReading(Connection& connection) const override { connection.run(beginServerRead); }
    void beginWriting(Connection& connection, std::int64_t user) const override {
        connection.run(beginServerWrite);
        connection.query(awaitTurn, turns + user);
    }

private:
    const std::string m_words;
};

}  // namespace

std::unique_ptr<DatabaseProduct> serverDatabase(const std::string& url) {
    auto words = connectionWords(url);
    if (!words) throw DatabaseFailure("the URL is none of PostgreSQL's, or has \"@\" or \"/\" in its password unescaped");
    return std::make_unique<ServerDatabase>(*std::move(words));
}

}  // namespace velkor::service
