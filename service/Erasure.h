#pragma once

#include <string_view>

#include "service/Accounts.h"

namespace velkor::service {

/// DELETE client_apps/APP/users/EMAIL/delete_all_data.json: removes the user's objects of the app, deletions and blobs included.
/// Clients that still hold objects are asked for them again. `place` is the part between "client_apps" and the end, since both of
/// its names may hold slashes.
Response deleteAllData(Database& database, const User& user, std::string_view place);

/// DELETE users/account.json: removes the user with everything that belongs to it.
void deleteUser(Database& database, const User& user);

}  // namespace velkor::service
