#pragma once

#include <string_view>

namespace velkor::service {

class Connection;

/// Where the databases' words for tables differ.
struct TableDialect {
    std::string_view serialKey;  // an integer key that the database counts up
    std::string_view givenKey;   // an integer key that the service gives
};

/// Makes the tables in an empty database, in the open transaction. Raises DatabaseFailure for tables of another version of the
/// service.
void bringTablesUpToDate(Connection& connection, const TableDialect& dialect);

}  // namespace velkor::service
