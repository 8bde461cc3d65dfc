#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "service/Database.h"
#include "service/HttpMessage.h"

namespace velkor::service {

// The users' rows, in an open transaction.

/// The id of the user with this address.
std::optional<std::int64_t> userWithEmail(Connection& connection, std::string_view email);

/// Whether the user is still there. Asked in a transaction that adds something for the user, who may have been deleted since the
/// request was let in.
bool isUser(Connection& connection, std::int64_t user);

/// What a request is answered that proves no user, or one that is gone.
Response unauthorised();

/// {"user_id": user}
Response userAnswer(std::int64_t user);

}  // namespace velkor::service
