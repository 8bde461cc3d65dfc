#include "service/Expiry.h"

#include "json/CJSONDeserializer.h"
#include "json/JSONWriter.h"
#include "platform/base/Date.h"
#include "service/Fingerprints.h"
#include "service/KeptParts.h"
#include "service/ObjectState.h"
#include "service/Partition.h"
#include "service/Users.h"
#include "service/Withholding.h"

namespace velkor::service {
namespace {

constexpr Sql findObject{"SELECT id, state, body, instance FROM objects WHERE partition_id = :partition AND guid = :guid",
                         "it:iiti"};
constexpr Sql storeExpiry{
    "UPDATE objects SET number = :number, touched = :number, instance = 0, state = 4, body = :body WHERE id = "
    ":id",
    "iti:"};
static_assert(static_cast<int>(ObjectKind::expired) == 4);

NS::Error failure(std::string_view text) { return NS::Error::withDescription(NS::PlatformErrorDomain, 1, text); }

std::string expiryOf(std::string_view className, std::string_view guid) {
    std::string body;
    JSONWriter writer(body);
    writer.beginObject();
    writer.key("xaction_time");
    writer.date(NS::Date::now());
    writer.member("xaction_type", "EXPIRED_XACTION");
    writer.member("xaction_object_type", className);
    writer.member("xaction_object_guid", guid);
    writer.endObject();
    return body;
}

NS::Result<void> expireObject(Connection& connection, Partition& partition, std::string_view guid) {
    // A rollback would take the expiry back with what it expired.
    partition.settle(connection);
    std::int64_t id = 0, writer = 0;
    std::string className, body;
    {
        auto rows = connection.query(findObject, partition.id, guid);
        if (!rows.next() || !isLive(ObjectState::of(rows.integer(1)).kind)) return failure("there is no such object");
        id = rows.integer(0);
        body = rows.text(2);
        writer = rows.integer(3);
        if (const auto member = CJSONDeserializer::deserializer().deserializeAsDictionary(body, nullptr)) {
            className = (*member)["xaction_object_type"].stringOr("");
        }
    }
    if (writer != 0) keepFingerprint(connection, id, writer, body);
    const auto expiry = expiryOf(className, guid);
    connection.run(storeExpiry, ++partition.highest, expiry, id);
    liftWithheld(connection, partition.id, partition.highest - 1);
    partition.hash.clear();
    partition.store(connection);
    auto service = Instance::find(connection, partition.id, serviceInstanceName);
    if (!service) service = Instance::add(connection, partition.id, serviceInstanceName);
    service->lastNumber = partition.highest;
    service->store(connection);
    return {};
}

}  // namespace

NS::Result<void> expire(Database& database, std::string_view email, std::string_view app, std::string_view guid) {
    const auto user = database.read([&](Connection& connection) { return userWithEmail(connection, email); });
    if (!user) return failure("there is no such user");
    return database.write(*user, [&](Connection& connection) -> NS::Result<void> {
        auto partition = Partition::find(connection, *user, app);
        if (!partition) return failure("the user has no data of this app");
        Directories directories;
        KeptParts(connection, *partition).takeIn(directories);
        return expireObject(connection, *partition, guid);
    });
}

}  // namespace velkor::service
