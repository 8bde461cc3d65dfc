#include "service/Tables.h"

#include <string>

#include "service/Database.h"

namespace velkor::service {
namespace {

constexpr std::int64_t currentVersion = 2;

// A partition is one user's data of one app. An object's row holds its latest transaction and its links; "objects.id" is the
// partition's id times 2^32 plus the object's number within it. "undo" keeps the rows that the provisional request replaced, "parts" what is not
// taken in yet; see KeptParts.
constexpr const char* tables[] = {
    "CREATE TABLE users (id {serial}, email TEXT NOT NULL UNIQUE, password TEXT NOT NULL, password_version BIGINT NOT NULL)",

    "CREATE TABLE locks (user_id {given}, serial BIGINT NOT NULL, held BIGINT NOT NULL, app TEXT NOT NULL, "
    "instance TEXT NOT NULL, since BIGINT NOT NULL, active BIGINT NOT NULL, transfer_until BIGINT NOT NULL)",

    "CREATE TABLE partitions (id {serial}, user_id BIGINT NOT NULL, app TEXT NOT NULL, highest BIGINT NOT NULL, "
    "epoch BIGINT NOT NULL, next_object BIGINT NOT NULL, hash TEXT NOT NULL, changes_lock BIGINT NOT NULL, "
    "provisional BIGINT NOT NULL, provisional_above BIGINT NOT NULL, provisional_object BIGINT NOT NULL, "
    "kept_parts BIGINT NOT NULL, UNIQUE (user_id, app))",

    "CREATE TABLE schemas (partition_id {given}, model_version TEXT NOT NULL, text TEXT NOT NULL)",

    "CREATE TABLE instances (id {serial}, partition_id BIGINT NOT NULL, name TEXT NOT NULL, last_number BIGINT NOT NULL, "
    "batch_highest BIGINT NOT NULL, answered BIGINT NOT NULL, listing BIGINT NOT NULL, proved BIGINT NOT NULL, "
    "asked_under BIGINT NOT NULL, withholds BIGINT NOT NULL, hash TEXT NOT NULL, hash_of TEXT NOT NULL, "
    "UNIQUE (partition_id, name))",

    "CREATE TABLE relations (partition_id BIGINT NOT NULL, id BIGINT NOT NULL, class TEXT NOT NULL, name TEXT NOT NULL, "
    "destination TEXT NOT NULL, to_many BIGINT NOT NULL, PRIMARY KEY (partition_id, id))",

    "CREATE TABLE objects (id {given}, partition_id BIGINT NOT NULL, guid TEXT NOT NULL, number BIGINT NOT NULL, "
    "touched BIGINT NOT NULL, instance BIGINT NOT NULL, state BIGINT NOT NULL, link_number BIGINT NOT NULL, "
    "link_instance BIGINT NOT NULL, link_other BIGINT NOT NULL, body TEXT NOT NULL, links TEXT NOT NULL)",
    "CREATE UNIQUE INDEX objects_guid ON objects (partition_id, guid)",
    "CREATE INDEX objects_touched ON objects (partition_id, touched)",

    "CREATE TABLE undo (id {given}, partition_id BIGINT NOT NULL, guid TEXT NOT NULL, number BIGINT NOT NULL, "
    "touched BIGINT NOT NULL, instance BIGINT NOT NULL, state BIGINT NOT NULL, link_number BIGINT NOT NULL, "
    "link_instance BIGINT NOT NULL, link_other BIGINT NOT NULL, body TEXT NOT NULL, links TEXT NOT NULL)",
    "CREATE INDEX undo_partition ON undo (partition_id)",

    "CREATE TABLE parts (partition_id BIGINT NOT NULL, place BIGINT NOT NULL, instance BIGINT NOT NULL, highest BIGINT NOT NULL, "
    "body TEXT NOT NULL, PRIMARY KEY (partition_id, place))",

    "CREATE TABLE superseded (object_id BIGINT NOT NULL, instance BIGINT NOT NULL, fingerprint TEXT NOT NULL, "
    "PRIMARY KEY (object_id, instance))",

    "CREATE TABLE rolled (id {serial}, instance BIGINT NOT NULL, guid TEXT NOT NULL, number BIGINT NOT NULL, "
    "body TEXT NOT NULL)",
    "CREATE INDEX rolled_instance ON rolled (instance, guid)",

    // What the blob store holds or may come to hold; see BlobTable. "name" is the store's, "due" when it is to be removed there.
    "CREATE TABLE blobs (name TEXT NOT NULL PRIMARY KEY, partition_id BIGINT NOT NULL, guid TEXT NOT NULL, "
    "attribute TEXT NOT NULL, state BIGINT NOT NULL, hash TEXT NOT NULL, issued BIGINT NOT NULL, due BIGINT NOT NULL)",
    "CREATE INDEX blobs_place ON blobs (partition_id, guid, attribute)",
    "CREATE INDEX blobs_guid ON blobs (guid)",
    "CREATE INDEX blobs_due ON blobs (due)",
    // The latest changes request of each partition: whose, under which lock, what is named in it by numbers above "above", and
    // what it named without getting a new number; see BatchRecord. Held locks are few, so that calls without credentials find
    // theirs.
    "CREATE TABLE batches (partition_id {given}, lock_serial BIGINT NOT NULL, instance BIGINT NOT NULL, above BIGINT NOT NULL)",
    "CREATE TABLE repeats (partition_id BIGINT NOT NULL, guid TEXT NOT NULL, PRIMARY KEY (partition_id, guid))",
    "CREATE INDEX locks_held ON locks (user_id) WHERE held = 1",

    // Listings: the objects that the answer to an instance's latest one sends, the guids (a JSON array) that it was asked for,
    // and where it and the service agree to differ.
    "CREATE TABLE corrections (instance BIGINT NOT NULL, object_id BIGINT NOT NULL, PRIMARY KEY (instance, object_id))",
    "CREATE TABLE asked (instance {given}, guids TEXT NOT NULL)",
    "CREATE TABLE withheld (instance BIGINT NOT NULL, guid TEXT NOT NULL, partition_id BIGINT NOT NULL, "
    "listed BIGINT NOT NULL, PRIMARY KEY (instance, guid))",
    "CREATE INDEX withheld_guid ON withheld (partition_id, guid)",

    "CREATE TABLE clients (user_id BIGINT NOT NULL, instance TEXT NOT NULL, info TEXT NOT NULL, seen BIGINT NOT NULL, "
    "PRIMARY KEY (user_id, instance))",
};

std::string spelled(std::string text, const TableDialect& dialect) {
    auto replace = [&](std::string_view mark, std::string_view word) {
        for (auto at = text.find(mark); at != text.npos; at = text.find(mark)) text.replace(at, mark.size(), word);
    };
    replace("{serial}", dialect.serialKey);
    replace("{given}", dialect.givenKey);
    return text;
}

constexpr Sql readVersion{"SELECT version FROM versions", ":i"};
constexpr Sql addVersion{"INSERT INTO versions (version) VALUES (:version)", "i:"};

}  // namespace

void bringTablesUpToDate(Connection& connection, const TableDialect& dialect) {
    connection.runOnce("CREATE TABLE IF NOT EXISTS versions (version BIGINT NOT NULL)");
    auto rows = connection.query(readVersion);
    if (rows.next()) {
        if (rows.integer(0) != currentVersion) throw DatabaseFailure("its tables are of another version of the service");
        return;
    }
    for (const char* text : tables) connection.runOnce(spelled(text, dialect));
    connection.run(addVersion, currentVersion);
}

}  // namespace velkor::service
