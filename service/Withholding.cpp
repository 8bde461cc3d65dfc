#include "service/Withholding.h"

#include "PelmoLib/encodings/GuidOrder.h"
#include "json/JSONCursor.h"

namespace velkor::service {
namespace {

constexpr Sql readWithheld{"SELECT guid, listed FROM withheld WHERE instance = :instance", "i:ti"};
constexpr Sql addWithheld{
    "INSERT INTO withheld (instance, guid, partition_id, listed) VALUES (:instance, :guid, :partition, :listed) ON CONFLICT "
    "(instance, guid) DO UPDATE SET listed = excluded.listed",
    "itii:"};
constexpr Sql removeWithheld{"DELETE FROM withheld WHERE instance = :instance AND guid = :guid", "it:"};

constexpr Sql readAsked{"SELECT guids FROM asked WHERE instance = :instance", "i:t"};
constexpr Sql storeAsked{
    "INSERT INTO asked (instance, guids) VALUES (:instance, :guids) ON CONFLICT (instance) DO UPDATE SET guids = excluded.guids",
    "it:"};
constexpr Sql dropAsked{"DELETE FROM asked WHERE instance = :instance", "i:"};

constexpr Sql findWithheld{"SELECT instance FROM withheld WHERE partition_id = :partition LIMIT 1", "i:i"};
constexpr Sql outdateHashes{
    "UPDATE instances SET hash_of = '' WHERE partition_id = :partition AND id IN (SELECT withheld.instance FROM objects JOIN "
    "withheld ON withheld.partition_id = objects.partition_id AND withheld.guid = objects.guid WHERE objects.partition_id = "
    ":partition AND objects.touched > :above AND objects.number > :above)",
    "ii:"};
constexpr Sql liftChanged{
    "DELETE FROM withheld WHERE partition_id = :partition AND guid IN (SELECT guid FROM objects WHERE partition_id = :partition "
    "AND touched > :above AND number > :above)",
    "ii:"};

}  // namespace

std::vector<Withholding::Guid> Withholding::guids() {
    std::vector<Guid> guids;
    if (!m_instance.withholds) return guids;
    auto rows = m_connection.query(readWithheld, m_instance.id);
    while (rows.next()) guids.push_back({rows.text(0), rows.integer(1) != 0});
    return guids;
}

void Withholding::add(std::string_view guid, bool listed) {
    m_connection.run(addWithheld, m_instance.id, guid, m_partition.id, listed ? 1 : 0);
    m_instance.withholds = true;
    m_instance.hashOf.clear();
}

void Withholding::remove(std::string_view guid) {
    m_connection.run(removeWithheld, m_instance.id, guid);
    m_instance.hashOf.clear();
}

std::string Withholding::asked(std::int64_t lockSerial) {
    if (m_instance.askedUnder != lockSerial) return {};
    auto rows = m_connection.query(readAsked, m_instance.id);
    return rows.next() ? std::move(rows.text(0)) : std::string();
}

void Withholding::setAsked(std::int64_t lockSerial, std::string_view guids) {
    m_connection.run(storeAsked, m_instance.id, guids);
    m_instance.askedUnder = lockSerial;
}

void Withholding::judgeAsked(std::int64_t lockSerial, const GuidDirectory& directory) {
    const std::string text = asked(lockSerial);
    JSONCursor cursor(text);
    std::string_view guid;
    for (cursor.enterArray(); cursor.nextElement() && cursor.string(guid);) {
        const auto object = directory.find(guid);
        if (!object || directory.kind(*object) == ObjectKind::unknown) add(guid, true);
    }
    m_connection.run(dropAsked, m_instance.id);
    m_instance.askedUnder = 0;
}

void Withholding::computeHash(GuidDirectory& directory) {
    const auto withheld = guids();
    std::vector<std::string_view> listed, missing;
    for (const Guid& guid : withheld) (guid.listed ? listed : missing).push_back(guid.text);
    sortGuids(listed);
    sortGuids(missing);
    m_instance.withholds = !withheld.empty();
    m_instance.hash = m_instance.withholds ? directory.hash(missing, listed) : std::string();
    m_instance.hashOf = m_instance.withholds ? m_partition.hash : std::string();
}

bool liftWithheld(Connection& connection, std::int64_t partition, std::int64_t above) {
    if (!connection.query(findWithheld, partition).next()) return false;
    connection.run(outdateHashes, partition, above);
    return connection.run(liftChanged, partition, above) > 0;
}

}  // namespace velkor::service
