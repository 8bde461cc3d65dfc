#include <soci/soci.h>
#include <soci/sqlite3/soci-sqlite3.h>

#include "service/DatabaseProduct.h"

namespace velkor::service {
namespace {

constexpr Sql beginEmbeddedWrite{"BEGIN IMMEDIATE", ":"};
constexpr Sql beginEmbeddedRead{"BEGIN", ":"};

class EmbeddedDatabase : public DatabaseProduct {
public:
    explicit EmbeddedDatabase(std::string file) : m_file(std::move(file)) {}

    std::size_t writers() const override { return 1; }
    TableDialect tableDialect() const override {
        return {.serialKey = "INTEGER PRIMARY KEY AUTOINCREMENT", .givenKey = "INTEGER PRIMARY KEY"};
    }

    std::unique_ptr<Connection> connect(bool writes) const override {
        auto connection = translateFailures([&] {
            return std::make_unique<Connection>(
                std::make_unique<soci::session>(soci::sqlite3, "dbname=\"" + m_file + "\" timeout=10"));
        });
        if (writes) {
            connection->runOnce("PRAGMA page_size=4096");
            connection->runOnce("PRAGMA journal_mode=WAL");
        }
        connection->runOnce("PRAGMA synchronous=FULL");
        // A large push stays in memory until it is committed; memory is taken as it is needed.
        connection->runOnce(writes ? "PRAGMA cache_size=-262144" : "PRAGMA cache_size=-16384");
        return connection;
    }

    void beginReading(Connection& connection) const override { connection.run(beginEmbeddedRead); }
    void beginWriting(Connection& connection, std::int64_t) const override { connection.run(beginEmbeddedWrite); }

private:
    const std::string m_file;
};

}  // namespace

std::unique_ptr<DatabaseProduct> embeddedDatabase(std::string file) {
    return std::make_unique<EmbeddedDatabase>(std::move(file));
}

}  // namespace velkor::service
