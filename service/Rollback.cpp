#include "service/Rollback.h"

#include <array>

#include "service/Forms.h"
#include "service/KeptParts.h"
#include "service/Partition.h"

namespace velkor::service {
namespace {

constexpr Sql findProvisional{
    "SELECT partitions.app FROM partitions JOIN instances ON instances.id = partitions.provisional WHERE "
    "partitions.user_id = :user AND instances.name = :instance",
    "it:t"};
constexpr Sql keepRolled{
    "INSERT INTO rolled (instance, guid, number, body) SELECT instance, guid, number, body FROM objects WHERE "
    "partition_id = :partition AND touched > :above AND number > :above AND instance = :instance ORDER BY "
    "number",
    "iii:"};
constexpr Sql dropNew{"DELETE FROM objects WHERE id >= :first AND id < :end", "ii:"};
constexpr Sql restoreOld{
    "INSERT INTO objects (id, partition_id, guid, number, touched, instance, state, link_number, link_instance, "
    "link_other, body, links) SELECT id, partition_id, guid, number, touched, instance, state, link_number, "
    "link_instance, link_other, body, links FROM undo WHERE partition_id = :partition ON CONFLICT (id) DO "
    "UPDATE SET number = excluded.number, touched = excluded.touched, instance = excluded.instance, state = "
    "excluded.state, link_number = excluded.link_number, link_instance = excluded.link_instance, link_other = "
    "excluded.link_other, body = excluded.body, links = excluded.links",
    "i:"};

void rollBackPartition(Connection& connection, Partition& partition) {
    connection.run(keepRolled, partition.id, partition.provisionalAbove, partition.provisional);
    const auto base = partition.id << 32;
    connection.run(dropNew, base + partition.provisionalObject, base + (std::int64_t(1) << 32));
    connection.run(restoreOld, partition.id);
    partition.settle(connection);
    ++partition.epoch;
    partition.hash.clear();
    partition.store(connection);
}

}  // namespace

Response rollBack(Database& database, Locks& locks, Directories& directories, const User& user, std::string_view form) {
    constexpr std::array<FormField, 1> fields{FormField{"instance_id"}};
    const auto instance = readForm(form, fields)[0];
    if (!instance) return Response::error(400, "The request names no instance.");
    return database.write(user.id, [&](Connection& connection) {
        if (!locks.heldBy(connection, user.id, *instance)) return Response::json("{}");
        std::vector<std::string> apps;
        {
            auto rows = connection.query(findProvisional, user.id, *instance);
            while (rows.next()) apps.push_back(rows.text(0));
        }
        for (const auto& app : apps) {
            auto partition = Partition::find(connection, user.id, app);
            if (!partition) continue;
            KeptParts(connection, *partition).takeIn(directories);
            if (partition->provisional != 0) rollBackPartition(connection, *partition);
        }
        return Response::json("{}");
    });
}

}  // namespace velkor::service
