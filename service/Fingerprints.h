#pragma once

#include <cstdint>
#include <string_view>

#include "service/Database.h"

namespace velkor::service {

// What an instance last sent for an object is known from the object's row until somebody else writes it; from then on by a
// fingerprint, so that a repeat is still known as one.

/// Keeps the fingerprint of the transaction that is about to be replaced by another instance's.
void keepFingerprint(Connection& connection, std::int64_t objectRow, std::int64_t instance, std::string_view body);
/// Whether this is what the instance last sent for the object, which others have written since.
bool isKeptFingerprint(Connection& connection, std::int64_t objectRow, std::int64_t instance, std::string_view body);

}  // namespace velkor::service
