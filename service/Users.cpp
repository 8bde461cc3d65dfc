#include "service/Users.h"

#include "json/JSONWriter.h"

namespace velkor::service {
namespace {

constexpr Sql findByEmail{"SELECT id FROM users WHERE email = :email", "t:i"};
constexpr Sql findById{"SELECT id FROM users WHERE id = :user", "i:i"};

}  // namespace

std::optional<std::int64_t> userWithEmail(Connection& connection, std::string_view email) {
    auto rows = connection.query(findByEmail, email);
    return rows.next() ? std::optional(rows.integer(0)) : std::nullopt;
}

bool isUser(Connection& connection, std::int64_t user) { return connection.query(findById, user).next(); }

Response unauthorised() { return Response::error(401, "The e-mail address or the password is wrong."); }

Response userAnswer(std::int64_t user) {
    std::string text;
    JSONWriter writer(text);
    writer.beginObject();
    writer.key("user_id");
    writer.number(user);
    writer.endObject();
    return Response::json(std::move(text));
}

}  // namespace velkor::service
