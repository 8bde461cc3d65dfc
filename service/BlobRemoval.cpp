#include "service/BlobRemoval.h"

#include "service/BatchRecord.h"
#include "service/BlobTimes.h"

namespace velkor::service {
namespace {

// State 2 is "removed". A form for an upload may still be used for a while; the bytes that it brings are removed as well.
constexpr Sql removeOfPartition{
    "UPDATE blobs SET due = CASE WHEN state = 0 THEN issued + :time ELSE 0 END, state = 2, partition_id = 0 WHERE "
    "partition_id = :partition",
    "ii:"};

}  // namespace

void removeBlobsOfPartition(Connection& connection, std::int64_t partition) {
    connection.run(removeOfPartition, issuedURLs, partition);
    forgetBatch(connection, partition);
}

}  // namespace velkor::service
