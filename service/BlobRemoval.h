#pragma once

#include <cstdint>

#include "service/Database.h"

namespace velkor::service {

/// Removes all blobs of one app of a user, in the open writing transaction that removes what they belong to. From its commit on
/// nobody can read, write or confirm them; their bytes leave the blob store soon afterwards, also if the process dies in between.
void removeBlobsOfPartition(Connection& connection, std::int64_t partition);

}  // namespace velkor::service
