#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "service/Database.h"
#include "service/Tables.h"

namespace velkor::service {

/// What the service must know of one database product. Immutable; any thread.
class DatabaseProduct {
public:
    virtual ~DatabaseProduct() = default;

    /// How many transactions of one process may write at a time.
    virtual std::size_t writers() const = 0;
    virtual TableDialect tableDialect() const = 0;
    /// A new connection, outside of any transaction. Raises DatabaseFailure.
    virtual std::unique_ptr<Connection> connect(bool writes) const = 0;
    /// Begins a transaction that sees one state of the database and changes nothing.
    virtual void beginReading(Connection& connection) const = 0;
    /// Begins a transaction that writes: until its end no other one, of whatever process, writes for that user, and each of its
    /// statements sees what the earlier ones of that user committed.
    virtual void beginWriting(Connection& connection, std::int64_t user) const = 0;
};

/// SQLite: a file, one writer in all.
std::unique_ptr<DatabaseProduct> embeddedDatabase(std::string file);
/// PostgreSQL: a server that several processes share, one writer a user. Raises DatabaseFailure when the URL is none; the text
/// then says nothing of its parts.
std::unique_ptr<DatabaseProduct> serverDatabase(const std::string& url);

}  // namespace velkor::service
