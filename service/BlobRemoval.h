#pragma once

#include <cstdint>
#include <string_view>

#include "service/Database.h"

namespace velkor::service {

// Each is called in the open writing transaction that removes what the blobs belong to. From its commit on nobody can read,
// write or confirm these blobs; their bytes leave the blob store soon afterwards, also if the process dies in between.

/// All blobs of one app of a user.
void removeBlobsOfPartition(Connection& connection, std::int64_t partition);
/// All blobs of a user; called before the user's partitions are gone.
void removeBlobsOfUser(Connection& connection, std::int64_t user);
/// All blobs of one object.
void removeBlobsOfGuid(Connection& connection, std::int64_t partition, std::string_view guid);

}  // namespace velkor::service
