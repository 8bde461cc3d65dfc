#include "service/ClientInfo.h"

#include <array>

#include "json/CJSONDeserializer.h"
#include "json/CJSONSerializer.h"
#include "json/JSONWriter.h"
#include "platform/base/UTF8.h"
#include "service/Forms.h"
#include "service/IncomingTransaction.h"
#include "service/Users.h"

namespace velkor::service {
namespace {

constexpr std::int64_t mostClients = 100;

constexpr Sql keepInfo{
    "INSERT INTO clients (user_id, instance, info, seen) VALUES (:user, :instance, :info, :now) ON CONFLICT (user_id, instance) "
    "DO UPDATE SET info = excluded.info, seen = excluded.seen",
    "itti:"};
constexpr Sql forgetOldest{
    "DELETE FROM clients WHERE user_id = :user AND instance IN (SELECT instance FROM clients WHERE user_id = :user ORDER BY seen "
    "DESC, instance LIMIT 1000000 OFFSET :most)",
    "ii:"};
constexpr Sql readClients{"SELECT instance, info FROM clients WHERE user_id = :user ORDER BY seen DESC, instance", "i:tt"};

bool isStorable(std::string_view text) { return NS::isValidUTF8(text) && text.find('\0') == text.npos; }

/// The JSON object as it may stand within another one: what is read is more than what JSON allows.
std::optional<std::string> normalized(std::string_view info) {
    const auto object = CJSONDeserializer::deserializer().deserializeAsDictionary(info, nullptr);
    return object ? CJSONSerializer::serializer().serializeDictionary(*object, nullptr) : std::nullopt;
}

}  // namespace

Response keepClient(Database& database, const User& user, std::string_view form, std::int64_t now) {
    constexpr std::array<FormField, 2> fields{FormField{"instance_id"}, FormField{"client_info"}};
    const auto values = readForm(form, fields);
    const auto& instance = values[0];
    const auto& info = values[1];
    if (!instance || instance->empty() || instance->size() > longestName || !isStorable(*instance)) {
        return Response::error(400, "The request names no instance.");
    }
    const auto json = info && isStorable(*info) ? normalized(*info) : std::nullopt;
    if (!json) return Response::error(400, "The client's information is no JSON object.");
    return database.write(user.id, [&](Connection& connection) {
        if (!isUser(connection, user.id)) return unauthorised();
        connection.run(keepInfo, user.id, *instance, *json, now);
        connection.run(forgetOldest, user.id, mostClients);
        return Response::json("{}");
    });
}

Response registeredClients(Database& database, const User& user) {
    return database.read([&](Connection& connection) {
        std::string text;
        JSONWriter writer(text);
        writer.beginObject();
        writer.key("registered_clients");
        writer.beginArray();
        auto rows = connection.query(readClients, user.id);
        while (rows.next()) {
            writer.beginObject();
            writer.key("instance_id");
            writer.string(rows.text(0));
            writer.key("client_info");
            writer.raw(rows.text(1));
            writer.endObject();
        }
        writer.endArray();
        writer.endObject();
        return Response::json(std::move(text));
    });
}

}  // namespace velkor::service
