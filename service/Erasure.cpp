#include "service/Erasure.h"

#include <array>

#include "service/BlobRemoval.h"
#include "service/Forms.h"
#include "service/Partition.h"

namespace velkor::service {
namespace {

// Of a partition, the rows that its instances or objects name first.
constexpr std::array dropsOfPartition{
    Sql{"DELETE FROM rolled WHERE instance IN (SELECT id FROM instances WHERE partition_id = :partition)", "i:"},
    Sql{"DELETE FROM corrections WHERE instance IN (SELECT id FROM instances WHERE partition_id = :partition)", "i:"},
    Sql{"DELETE FROM asked WHERE instance IN (SELECT id FROM instances WHERE partition_id = :partition)", "i:"},
    Sql{"DELETE FROM superseded WHERE object_id >= :partition * 4294967296 AND object_id < (:partition + 1) * 4294967296", "i:"},
    Sql{"DELETE FROM withheld WHERE partition_id = :partition", "i:"},
    Sql{"DELETE FROM parts WHERE partition_id = :partition", "i:"},
    Sql{"DELETE FROM undo WHERE partition_id = :partition", "i:"},
    Sql{"DELETE FROM objects WHERE partition_id = :partition", "i:"},
    Sql{"DELETE FROM relations WHERE partition_id = :partition", "i:"},
};
constexpr Sql forgetListings{
    "UPDATE instances SET listing = 0, proved = 0, asked_under = 0, withholds = 0, hash = '', hash_of = '' WHERE partition_id = "
    ":partition",
    "i:"};
constexpr Sql findPartitions{"SELECT id FROM partitions WHERE user_id = :user", "i:i"};
constexpr Sql dropSchema{"DELETE FROM schemas WHERE partition_id = :partition", "i:"};
constexpr Sql dropInstances{"DELETE FROM instances WHERE partition_id = :partition", "i:"};
constexpr std::array dropsOfUser{
    Sql{"DELETE FROM partitions WHERE user_id = :user", "i:"},
    Sql{"DELETE FROM clients WHERE user_id = :user", "i:"},
    Sql{"DELETE FROM locks WHERE user_id = :user", "i:"},
    Sql{"DELETE FROM users WHERE id = :user", "i:"},
};

void dropObjects(Connection& connection, std::int64_t partition) {
    for (const Sql& drop : dropsOfPartition) connection.run(drop, partition);
}

/// The app that the path names, if it names this user.
std::optional<std::string_view> appOf(std::string_view place, const User& user) {
    for (const std::string& email : {user.email, percentDecoded(user.email)}) {
        const std::string ending = "/users/" + email;
        if (place.size() > ending.size() && place.ends_with(ending)) return place.substr(0, place.size() - ending.size());
    }
    return std::nullopt;
}

}  // namespace

Response deleteAllData(Database& database, const User& user, std::string_view place) {
    const auto app = appOf(place, user);
    if (!app) return Response::error(403, "This is another user's.");
    return database.write(user.id, [&](Connection& connection) {
        auto partition = Partition::find(connection, user.id, *app);
        if (!partition) return Response::json("{}");
        removeBlobsOfPartition(connection, partition->id);
        dropObjects(connection, partition->id);
        connection.run(forgetListings, partition->id);
        // Numbers are never used twice, and a request under way shall see that what it knew is gone.
        partition->provisional = 0;
        partition->keptParts = 0;
        ++partition->epoch;
        partition->hash.clear();
        partition->store(connection);
        return Response::json("{}");
    });
}

void deleteUser(Database& database, const User& user) {
    database.write(user.id, [&](Connection& connection) {
        std::vector<std::int64_t> partitions;
        {
            auto rows = connection.query(findPartitions, user.id);
            while (rows.next()) partitions.push_back(rows.integer(0));
        }
        for (const auto partition : partitions) {
            removeBlobsOfPartition(connection, partition);
            dropObjects(connection, partition);
            connection.run(dropSchema, partition);
            connection.run(dropInstances, partition);
        }
        for (const Sql& drop : dropsOfUser) connection.run(drop, user.id);
        return true;
    });
}

}  // namespace velkor::service
