#include "service/SchemaEndpoint.h"

#include "PelmoLib/encodings/VLKLog.h"
#include "json/CJSONDeserializer.h"
#include "service/Partition.h"
#include "service/Users.h"

namespace velkor::service {
namespace {

constexpr std::size_t longestSchema = std::size_t(16) << 20;
constexpr std::size_t longestVersion = 1024;

constexpr Sql keepSchema{
    "INSERT INTO schemas (partition_id, model_version, text) VALUES (:partition, :version, :text) ON CONFLICT "
    "(partition_id) DO UPDATE SET model_version = excluded.model_version, text = excluded.text",
    "itt:"};

bool isSchema(std::string_view json) {
    return json.size() <= longestSchema && json.find('\0') == json.npos &&
           CJSONDeserializer::deserializer().deserializeAsArray(json, nullptr).has_value();
}

}  // namespace

Response takeSchema(Database& database, const User& user, std::string_view app, std::string_view json) {
    if (!isSchema(json)) return Response::error(400, "The request is no schema description.");
    return database.write(user.id, [&](Connection& connection) {
        if (!isUser(connection, user.id)) return unauthorised();
        connection.run(keepSchema, Partition::obtain(connection, user.id, app).id, "", json);
        return Response::json("{}");
    });
}

void storeSchema(Connection& connection, std::int64_t partition, std::string_view modelVersion,
                 std::optional<std::string_view> schema) {
    if (!schema) return;
    if (!isSchema(*schema) || modelVersion.size() > longestVersion || modelVersion.find('\0') != modelVersion.npos) {
        VLKLog::sharedInstance().logMessageAtLevel(100, "A request's schema was not kept, for it is none.");
        return;
    }
    connection.run(keepSchema, partition, modelVersion, *schema);
}

}  // namespace velkor::service
