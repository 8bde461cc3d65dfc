#include "service/Accounts.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <array>

#include "PelmoLib/encodings/NSData+Digests.h"
#include "json/CJSONDeserializer.h"
#include "json/JSONWriter.h"
#include "platform/base/Exception.h"
#include "platform/base/UTF8.h"

namespace velkor::service {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t longestEmail = 254;
constexpr std::size_t longestPassword = 1024;
constexpr std::size_t failuresThatSlow = 5;
constexpr auto failureWindow = 60s;
constexpr auto slowedInterval = 1s;
constexpr auto longestDelay = 10s;
constexpr std::size_t mostRemembered = 100'000;  // accounts in each map

constexpr Sql findUser{"SELECT id, password, password_version FROM users WHERE email = :email", "t:iti"};
constexpr Sql addUser{
    "INSERT INTO users (email, password, password_version) VALUES (:email, :password, 1) ON CONFLICT (email) DO NOTHING", "tt:"};

std::string randomBytes(std::size_t count) {
    std::string bytes(count, '\0');
    NS::assertThat(RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(count)) == 1,
                   "random bytes are to be had");
    return bytes;
}

bool isAddress(std::string_view email) {
    return !email.empty() && email.size() <= longestEmail && email.find(':') == email.npos && email.find('\0') == email.npos;
}

/// Takes as long as a check, so that time does not tell unknown users from known ones.
void pretendToCheck(std::string_view password) {
    static const std::string hash = hashPassword(randomBytes(16));
    verifyPassword(password, hash);
}

std::string userAnswer(std::int64_t id) {
    std::string text;
    JSONWriter writer(text);
    writer.beginObject();
    writer.key("user_id");
    writer.number(id);
    writer.endObject();
    return text;
}

}  // namespace

struct Accounts::Account {
    std::int64_t id;
    std::string hash;
    std::int64_t passwordVersion;
};

Accounts::Accounts(Database& database, std::function<Clock::time_point()> now)
    : m_database(database), m_now(std::move(now)), m_secret(randomBytes(32)) {}

Response Accounts::signUp(std::string_view json) {
    const auto request = CJSONDeserializer::deserializer().deserializeAsDictionary(json, nullptr);
    const NS::Dictionary* user = request ? (*request)["user"].asDictionary() : nullptr;
    if (!user) return Response::error(400, "The request is no sign-up.");
    const auto email = (*user)["email"].asString(), password = (*user)["password"].asString(),
               confirmation = (*user)["password_confirmation"].asString();
    if (!email || !isAddress(*email)) return Response::error(422, "This is no e-mail address.");
    if (!password || password->empty() || password->size() > longestPassword || password->find('\0') != password->npos) {
        return Response::error(422, "This is no password.");
    }
    if (confirmation && *confirmation != *password) return Response::error(422, "The two passwords differ.");
    const auto credentials = cutCredentials(*email, *password);
    if (!credentials) return Response::error(422, "Clients could not send this address and password.");

    const std::string hash = hashPassword(credentials->password);
    return m_database.write(Database::nobody, [&](Connection& connection) {
        if (connection.run(addUser, *email, hash) == 0) return Response::error(409, "This e-mail address is taken.");
        auto rows = connection.query(findUser, *email);
        rows.next();
        return Response::json(userAnswer(rows.integer(0)));
    });
}

Response Accounts::signOut(const User& user) {
    std::lock_guard guard(m_mutex);
    m_proofs.erase(user.id);
    return Response::json("{}");
}

Response Accounts::verify(const User& user) const { return Response::json(userAnswer(user.id)); }

std::variant<User, Response> Accounts::authenticate(const Request& request) {
    const Response refusal = Response::error(401, "The e-mail address or the password is wrong.");
    auto credentials = credentialsFromHeader(request.authorization);
    if (!credentials || credentials->email.size() > longestEmail || credentials->password.size() > 4 * longestPassword)
        return refusal;

    const auto account = find(credentials->email);
    const std::string digest = account ? digestOf(*account, credentials->password) : std::string();
    if (account && isProven(*account, digest)) return User{account->id, std::move(credentials->email)};

    if (!request.postponed) {
        if (const auto delay = delayOfCheck(credentials->email); delay > longestDelay) {
            return Response::error(429, "Too many attempts.");
        } else if (delay > 0ms) {
            Response later;
            later.postpone = delay;
            return later;
        }
    }
    if (!account) pretendToCheck(credentials->password);
    if (!account || !isRight(*account, *credentials)) {
        addFailure(credentials->email);
        return refusal;
    }
    std::lock_guard guard(m_mutex);
    if (m_proofs.size() >= mostRemembered) m_proofs.clear();
    m_proofs.insert_or_assign(account->id, Proof{account->passwordVersion, digest});
    return User{account->id, std::move(credentials->email)};
}

std::optional<Accounts::Account> Accounts::find(const std::string& email) {
    return m_database.read([&](Connection& connection) -> std::optional<Account> {
        auto rows = connection.query(findUser, email);
        if (!rows.next()) return std::nullopt;
        return Account{rows.integer(0), rows.text(1), rows.integer(2)};
    });
}

bool Accounts::isProven(const Account& account, const std::string& digest) const {
    std::lock_guard guard(m_mutex);
    auto proof = m_proofs.find(account.id);
    return proof != m_proofs.end() && proof->second.passwordVersion == account.passwordVersion &&
           CRYPTO_memcmp(proof->second.digest.data(), digest.data(), digest.size()) == 0;
}

bool Accounts::isRight(const Account& account, const Credentials& credentials) const {
    if (verifyPassword(credentials.password, account.hash)) return true;
    // A program that sends the whole pair is as welcome as one that cuts it.
    const auto cut = cutCredentials(credentials.email, credentials.password);
    return cut && cut->password != credentials.password && verifyPassword(cut->password, account.hash);
}

std::chrono::milliseconds Accounts::delayOfCheck(const std::string& email) {
    std::lock_guard guard(m_mutex);
    auto found = m_failures.find(email);
    if (found == m_failures.end()) return 0ms;
    Failures& failures = found->second;
    const auto now = m_now();
    if (failures.times.size() < failuresThatSlow || failures.times.front() + failureWindow <= now) return 0ms;
    const auto turn = std::max(now, failures.nextCheck) + slowedInterval;
    if (turn - now > longestDelay) return std::chrono::duration_cast<std::chrono::milliseconds>(turn - now);
    failures.nextCheck = turn;
    return std::chrono::ceil<std::chrono::milliseconds>(turn - now);
}

void Accounts::addFailure(const std::string& email) {
    std::lock_guard guard(m_mutex);
    const auto now = m_now();
    if (m_failures.size() >= mostRemembered) {
        std::erase_if(m_failures, [&](const auto& entry) { return entry.second.times.back() + failureWindow <= now; });
        if (m_failures.size() >= mostRemembered) m_failures.clear();
    }
    Failures& failures = m_failures[email];
    failures.times.push_back(now);
    if (failures.times.size() > failuresThatSlow) failures.times.pop_front();
}

std::string Accounts::digestOf(const Account& account, std::string_view password) const {
    SHA256Digest digest;
    digest.update(m_secret);
    digest.update(std::to_string(account.id));
    digest.update(":");
    digest.update(password);
    const auto bytes = digest.finish();
    return std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

}  // namespace velkor::service
