#include "service/BlobTable.h"

#include "PelmoLib/encodings/NSString+UUID.h"
#include "service/BlobTimes.h"

namespace velkor::service {
namespace {

// "state" is 0 for an upload, 1 for the current blob, 2 for what was taken out.
constexpr Sql findCurrent{
    "SELECT name, hash FROM blobs WHERE partition_id = :partition AND guid = :guid AND attribute = :attribute AND state = 1",
    "itt:tt"};
constexpr Sql findUploads{
    "SELECT name FROM blobs WHERE partition_id = :partition AND guid = :guid AND attribute = :attribute AND state = 0 "
    "ORDER BY issued DESC LIMIT 16",
    "itt:t"};
constexpr Sql findTakenOut{
    "SELECT name FROM blobs WHERE partition_id = :partition AND guid = :guid AND attribute = :attribute AND state = 2 "
    "AND hash <> '' ORDER BY due DESC LIMIT 1",
    "itt:t"};
constexpr Sql addBlob{
    "INSERT INTO blobs (name, partition_id, guid, attribute, state, hash, issued, due) VALUES (:name, :partition, :guid, "
    ":attribute, 0, '', :now, :due)",
    "tittii:"};
constexpr Sql retireCurrent{
    "UPDATE blobs SET state = 2, due = :due WHERE partition_id = :partition AND guid = :guid AND attribute = :attribute AND "
    "state = 1",
    "iitt:"};
constexpr Sql retireUploads{
    "UPDATE blobs SET state = 2, due = :due WHERE partition_id = :partition AND guid = :guid AND attribute = :attribute AND "
    "state = 0",
    "iitt:"};
constexpr Sql makeCurrent{"UPDATE blobs SET state = 1, hash = :hash, due = 9223372036854775807 WHERE name = :name AND state = 0",
                          "tt:"};
constexpr Sql retireOthers{
    "UPDATE blobs SET state = 2, due = :due WHERE partition_id = :partition AND guid = :guid AND attribute = :attribute AND "
    "state = 1 AND name <> :name",
    "iittt:"};
constexpr Sql findUpload{"SELECT state FROM blobs WHERE name = :name AND state = 0", "t:i"};

}  // namespace

std::optional<StoredBlob> BlobTable::current() const {
    auto rows = m_connection.query(findCurrent, m_partition, m_guid, m_attribute);
    if (!rows.next()) return std::nullopt;
    return StoredBlob{rows.text(0), rows.text(1)};
}

std::string BlobTable::addUpload(std::int64_t now) {
    std::string name = stringWithUUID();
    m_connection.run(addBlob, name, m_partition, m_guid, m_attribute, now, now + longestUpload);
    return name;
}

std::vector<std::string> BlobTable::uploads() const {
    std::vector<std::string> names;
    auto rows = m_connection.query(findUploads, m_partition, m_guid, m_attribute);
    while (rows.next()) names.push_back(rows.text(0));
    return names;
}

bool BlobTable::confirm(const std::string& name, const std::string& hash, std::int64_t now) {
    if (m_connection.run(makeCurrent, hash, name) == 0) return false;
    m_connection.run(retireOthers, now + issuedURLs, m_partition, m_guid, m_attribute, name);
    return true;
}

std::optional<std::string> BlobTable::takeOut(std::int64_t now) {
    const auto blob = current();
    m_connection.run(retireUploads, now + issuedURLs, m_partition, m_guid, m_attribute);
    if (blob) {
        m_connection.run(retireCurrent, now + issuedURLs, m_partition, m_guid, m_attribute);
        return blob->name;
    }
    auto rows = m_connection.query(findTakenOut, m_partition, m_guid, m_attribute);
    if (!rows.next()) return std::nullopt;
    return rows.text(0);
}

bool BlobTable::isUpload(Connection& connection, const std::string& name) { return connection.query(findUpload, name).next(); }

}  // namespace velkor::service
