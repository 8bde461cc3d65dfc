#pragma once

#include <cstdint>
#include <string_view>

#include "service/Accounts.h"

namespace velkor::service {

/// POST clientinfo.json: keeps what an installation of the user says of itself. `now` is in milliseconds since 1970; beyond a
/// hundred installations the ones heard of longest ago are forgotten.
Response keepClient(Database& database, const User& user, std::string_view form, std::int64_t now);

/// GET clientinfo.json: {"registered_clients": [{"instance_id", "client_info"}]}, the latest first.
Response registeredClients(Database& database, const User& user);

}  // namespace velkor::service
