#pragma once

#include <string_view>

#include "platform/base/Result.h"
#include "service/Database.h"

namespace velkor::service {

/// Makes the object's latest transaction an expiry, which every client then gets. Also while a server runs on the same database.
/// The error says what was not found.
NS::Result<void> expire(Database& database, std::string_view email, std::string_view app, std::string_view guid);

}  // namespace velkor::service
