#pragma once

#include <string_view>

#include "service/Accounts.h"
#include "service/Directories.h"
#include "service/Locks.h"

namespace velkor::service {

/// POST transactions/rollback.json: takes back what the instance's latest changes request newly stored, in every app of the user.
/// Guids get their earlier transactions and links with their old numbers; what is taken back waits to come again (see
/// ChangesEndpoint). Without anything provisional, or without the lock, it does nothing.
Response rollBack(Database& database, Locks& locks, Directories& directories, const User& user, std::string_view form);

}  // namespace velkor::service
