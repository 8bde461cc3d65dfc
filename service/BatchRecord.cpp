#include "service/BatchRecord.h"

namespace velkor::service {
namespace {

constexpr Sql storeBatch{
    "INSERT INTO batches (partition_id, lock_serial, instance, above) VALUES (:partition, :serial, :instance, :above) "
    "ON CONFLICT (partition_id) DO UPDATE SET lock_serial = excluded.lock_serial, instance = excluded.instance, "
    "above = excluded.above",
    "iiii:"};
constexpr Sql dropRepeats{"DELETE FROM repeats WHERE partition_id = :partition", "i:"};
constexpr Sql addRepeat{
    "INSERT INTO repeats (partition_id, guid) VALUES (:partition, :guid) ON CONFLICT (partition_id, guid) DO NOTHING", "it:"};
// The joins are spelt as cross joins to be done in this order: few locks are held at a time, and users may be many.
constexpr Sql findHolders{
    "SELECT locks.user_id, partitions.id, batches.instance FROM locks CROSS JOIN partitions CROSS JOIN batches WHERE "
    "locks.held = 1 AND partitions.user_id = locks.user_id AND partitions.app = :app AND batches.partition_id = partitions.id "
    "AND batches.lock_serial = locks.serial AND (EXISTS (SELECT 1 FROM objects WHERE objects.partition_id = partitions.id AND "
    "objects.guid = :guid AND objects.number > batches.above AND objects.instance = batches.instance) OR EXISTS (SELECT 1 "
    "FROM repeats WHERE repeats.partition_id = partitions.id AND repeats.guid = :guid)) LIMIT 2",
    "tt:iii"};
constexpr Sql findInstance{
    "SELECT batches.instance FROM locks CROSS JOIN batches WHERE locks.user_id = :user AND locks.held = 1 AND "
    "batches.partition_id = :partition AND batches.lock_serial = locks.serial AND (EXISTS (SELECT 1 FROM objects WHERE "
    "objects.partition_id = :partition AND objects.guid = :guid AND objects.number > batches.above AND objects.instance = "
    "batches.instance) OR EXISTS (SELECT 1 FROM repeats WHERE repeats.partition_id = :partition AND repeats.guid = :guid))",
    "iit:i"};
constexpr Sql dropBatch{"DELETE FROM batches WHERE partition_id = :partition", "i:"};
constexpr Sql findBlobOwners{
    "SELECT DISTINCT partitions.user_id, partitions.id FROM blobs JOIN partitions ON partitions.id = blobs.partition_id WHERE "
    "blobs.guid = :guid AND partitions.app = :app LIMIT 2",
    "tt:ii"};
// The remainder of "state" is the kind: 0 is only mentioned, 3 deleted.
constexpr Sql findOtherOwner{
    "SELECT partitions.id FROM partitions JOIN objects ON objects.partition_id = partitions.id AND objects.guid = :guid WHERE "
    "partitions.app = :app AND partitions.id <> :owner AND objects.state % 16 <> 0 AND objects.state % 16 <> 3 LIMIT 1",
    "tti:i"};

}  // namespace

void recordBatch(Connection& connection, std::int64_t partition, std::int64_t lockSerial, std::int64_t instance,
                 std::int64_t above, std::span<const std::string_view> repeats) {
    connection.run(storeBatch, partition, lockSerial, instance, above);
    connection.run(dropRepeats, partition);
    for (const auto guid : repeats) connection.run(addRepeat, partition, guid);
}

void forgetBatch(Connection& connection, std::int64_t partition) {
    connection.run(dropBatch, partition);
    connection.run(dropRepeats, partition);
}

std::vector<BatchHolder> holdersThatNamed(Connection& connection, std::string_view app, std::string_view guid) {
    std::vector<BatchHolder> holders;
    auto rows = connection.query(findHolders, app, guid);
    while (rows.next()) holders.push_back({rows.integer(0), rows.integer(1), rows.integer(2)});
    return holders;
}

std::int64_t instanceThatNamed(Connection& connection, std::int64_t user, std::int64_t partition, std::string_view guid) {
    auto rows = connection.query(findInstance, user, partition, guid);
    return rows.next() ? rows.integer(0) : 0;
}

BlobOwner blobOwner(Connection& connection, std::string_view app, std::string_view guid) {
    std::vector<BatchHolder> owners;
    {
        auto rows = connection.query(findBlobOwners, guid, app);
        while (rows.next()) owners.push_back({rows.integer(0), rows.integer(1), 0});
    }
    if (owners.empty()) return {};
    const bool isShared = owners.size() > 1 || connection.query(findOtherOwner, guid, app, owners.front().partition).next();
    return {owners.front(), isShared};
}

}  // namespace velkor::service
