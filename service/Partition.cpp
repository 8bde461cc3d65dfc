#include "service/Partition.h"

namespace velkor::service {
namespace {

constexpr Sql findByApp{
    "SELECT id, highest, epoch, next_object, hash, changes_lock, provisional, provisional_above, "
    "provisional_object, kept_parts FROM partitions WHERE user_id = :user AND app = :app",
    "it:iiiitiiiii"};
constexpr Sql findById{
    "SELECT id, highest, epoch, next_object, hash, changes_lock, provisional, provisional_above, "
    "provisional_object, kept_parts FROM partitions WHERE user_id = :user AND id = :id",
    "ii:iiiitiiiii"};
constexpr Sql addPartition{
    "INSERT INTO partitions (user_id, app, highest, epoch, next_object, hash, changes_lock, provisional, "
    "provisional_above, provisional_object, kept_parts) VALUES (:user, :app, 0, 0, 1, '', 0, 0, 0, 0, 0)",
    "it:"};
constexpr Sql storePartition{
    "UPDATE partitions SET highest = :highest, epoch = :epoch, next_object = :next, hash = :hash, "
    "changes_lock = :changes, provisional = :provisional, provisional_above = :above, "
    "provisional_object = :object, kept_parts = :kept WHERE id = :id",
    "iiitiiiiii:"};
constexpr Sql dropUndo{"DELETE FROM undo WHERE partition_id = :partition", "i:"};
constexpr Sql dropUndoOfUser{
    "DELETE FROM undo WHERE partition_id IN (SELECT id FROM partitions WHERE user_id = :user AND "
    "provisional <> 0)",
    "i:"};
constexpr Sql settleUser{"UPDATE partitions SET provisional = 0 WHERE user_id = :user AND provisional <> 0", "i:"};

constexpr Sql findInstance{
    "SELECT id, last_number, batch_highest, answered, listing, proved, asked_under, withholds, hash, hash_of FROM instances "
    "WHERE partition_id = :partition AND name = :name",
    "it:iiiiiiiitt"};
constexpr Sql findInstanceById{
    "SELECT id, last_number, batch_highest, answered, listing, proved, asked_under, withholds, hash, hash_of FROM instances "
    "WHERE id = :id",
    "i:iiiiiiiitt"};
constexpr Sql addInstance{
    "INSERT INTO instances (partition_id, name, last_number, batch_highest, answered, listing, proved, asked_under, withholds, "
    "hash, hash_of) VALUES (:partition, :name, 0, 0, 0, 0, 0, 0, 0, '', '')",
    "it:"};
constexpr Sql storeInstance{
    "UPDATE instances SET last_number = :number, batch_highest = :highest, answered = :answered, listing = :listing, "
    "proved = :proved, asked_under = :asked, withholds = :withholds, hash = :hash, hash_of = :hash_of WHERE id = :id",
    "iiiiiiitti:"};
constexpr Sql findRolled{"SELECT id FROM rolled WHERE instance = :instance LIMIT 1", "i:i"};
constexpr Sql findHighestOfOthers{
    "SELECT COALESCE(MAX(last_number), 0) FROM instances WHERE partition_id = :partition AND "
    "id <> :id",
    "ii:i"};

std::optional<Partition> firstOf(Rows rows) {
    if (!rows.next()) return std::nullopt;
    return Partition{rows.integer(0), rows.integer(1), rows.integer(2), rows.integer(3), rows.text(4),
                     rows.integer(5), rows.integer(6), rows.integer(7), rows.integer(8), rows.integer(9)};
}

std::optional<Instance> firstInstanceOf(Rows rows) {
    if (!rows.next()) return std::nullopt;
    return Instance{rows.integer(0),      rows.integer(1), rows.integer(2),      rows.integer(3), rows.integer(4),
                    rows.integer(5) != 0, rows.integer(6), rows.integer(7) != 0, rows.text(8),    rows.text(9)};
}

}  // namespace

std::optional<Partition> Partition::find(Connection& connection, std::int64_t user, std::string_view app) {
    return firstOf(connection.query(findByApp, user, app));
}

std::optional<Partition> Partition::find(Connection& connection, std::int64_t user, std::int64_t id) {
    return firstOf(connection.query(findById, user, id));
}

Partition Partition::obtain(Connection& connection, std::int64_t user, std::string_view app) {
    if (auto found = find(connection, user, app)) return *std::move(found);
    connection.run(addPartition, user, app);
    return find(connection, user, app).value();
}

void Partition::store(Connection& connection) const {
    connection.run(storePartition, highest, epoch, nextObject, hash, changesLock, provisional, provisionalAbove,
                   provisionalObject, keptParts, id);
}

void Partition::settle(Connection& connection) {
    if (provisional == 0) return;
    connection.run(dropUndo, id);
    provisional = 0;
}

void Partition::settleAll(Connection& connection, std::int64_t user) {
    connection.run(dropUndoOfUser, user);
    connection.run(settleUser, user);
}

std::optional<Instance> Instance::find(Connection& connection, std::int64_t partition, std::string_view name) {
    return firstInstanceOf(connection.query(findInstance, partition, name));
}

std::optional<Instance> Instance::find(Connection& connection, std::int64_t id) {
    return firstInstanceOf(connection.query(findInstanceById, id));
}

Instance Instance::add(Connection& connection, std::int64_t partition, std::string_view name) {
    connection.run(addInstance, partition, name);
    return find(connection, partition, name).value();
}

void Instance::store(Connection& connection) const {
    connection.run(storeInstance, lastNumber, batchHighest, answered, listing, proved ? 1 : 0, askedUnder, withholds ? 1 : 0,
                   hash, hashOf, id);
}

bool Instance::hasRolled(Connection& connection) const { return connection.query(findRolled, id).next(); }

std::int64_t Instance::highestOfOthers(Connection& connection, std::int64_t partition) const {
    auto rows = connection.query(findHighestOfOthers, partition, id);
    return rows.next() ? rows.integer(0) : 0;
}

}  // namespace velkor::service
