#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "service/Accounts.h"

namespace velkor::service {

/// POST client_apps/APP/schema.json: keeps the app's schema description as it was sent.
Response takeSchema(Database& database, const User& user, std::string_view app, std::string_view json);

/// Keeps the schema that a changes request carries, if it carries one that is a JSON array.
void storeSchema(Connection& connection, std::int64_t partition, std::string_view modelVersion,
                 std::optional<std::string_view> schema);

}  // namespace velkor::service
