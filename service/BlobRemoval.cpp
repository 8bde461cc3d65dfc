#include "service/BlobRemoval.h"

namespace velkor::service {
namespace {

// State 2 is "removed". A form for an upload may still be used for a while; the bytes that it brings are removed as well.
constexpr Sql removeOfPartition{
    "UPDATE blobs SET due = CASE WHEN state = 0 THEN issued + 1800000 ELSE 0 END, state = 2, partition_id = 0 WHERE "
    "partition_id = :partition",
    "i:"};
constexpr Sql removeOfUser{
    "UPDATE blobs SET due = CASE WHEN state = 0 THEN issued + 1800000 ELSE 0 END, state = 2, partition_id = 0 WHERE "
    "partition_id IN (SELECT id FROM partitions WHERE user_id = :user)",
    "i:"};
constexpr Sql removeOfGuid{
    "UPDATE blobs SET due = CASE WHEN state = 0 THEN issued + 1800000 ELSE 0 END, state = 2 WHERE "
    "partition_id = :partition AND guid = :guid",
    "it:"};
constexpr Sql dropBatch{"DELETE FROM batches WHERE partition_id = :partition", "i:"};
constexpr Sql dropRepeats{"DELETE FROM repeats WHERE partition_id = :partition", "i:"};
constexpr Sql dropBatchesOfUser{"DELETE FROM batches WHERE partition_id IN (SELECT id FROM partitions WHERE user_id = :user)",
                                "i:"};
constexpr Sql dropRepeatsOfUser{"DELETE FROM repeats WHERE partition_id IN (SELECT id FROM partitions WHERE user_id = :user)",
                                "i:"};

}  // namespace

void removeBlobsOfPartition(Connection& connection, std::int64_t partition) {
    connection.run(removeOfPartition, partition);
    connection.run(dropBatch, partition);
    connection.run(dropRepeats, partition);
}

void removeBlobsOfUser(Connection& connection, std::int64_t user) {
    connection.run(removeOfUser, user);
    connection.run(dropBatchesOfUser, user);
    connection.run(dropRepeatsOfUser, user);
}

void removeBlobsOfGuid(Connection& connection, std::int64_t partition, std::string_view guid) {
    connection.run(removeOfGuid, partition, guid);
}

}  // namespace velkor::service
