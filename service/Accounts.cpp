#include "service/Accounts.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <algorithm>
#include <array>

#include "PelmoLib/encodings/NSData+Digests.h"
#include "PelmoLib/encodings/NSData_Base64.h"
#include "PelmoLib/encodings/VLKLog.h"
#include "json/CJSONDeserializer.h"
#include "platform/base/Exception.h"
#include "platform/base/UTF8.h"
#include "service/Forms.h"
#include "service/Users.h"

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

constexpr std::int64_t firstPasswordVersion = 1;

constexpr Sql findUser{"SELECT id, password, password_version FROM users WHERE email = :email", "t:iti"};
constexpr Sql addUser{
    "INSERT INTO users (email, password, password_version) VALUES (:email, :password, 1) ON CONFLICT (email) DO NOTHING", "tt:"};
// An account whose password somebody else has changed meanwhile keeps that one.
constexpr Sql replacePassword{
    "UPDATE users SET password = :password, password_version = password_version + 1 WHERE id = :id AND password_version = "
    ":version",
    "tii:"};

std::string randomBytes(std::size_t count) {
    std::string bytes(count, '\0');
    NS::assertThat(RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(count)) == 1,
                   "random bytes are to be had");
    return bytes;
}

bool isAddress(std::string_view email) {
    auto isForbidden = [](unsigned char c) { return c < ' ' || c == 0x7F || c == ':'; };
    return !email.empty() && email.size() <= longestEmail && std::none_of(email.begin(), email.end(), isForbidden) &&
           NS::isValidUTF8(email);
}

/// The hash of a password that an account is to have, or the answer that refuses it.
std::variant<std::string, Response> hashOfNewPassword(std::string_view email, std::string_view password) {
    if (password.empty() || password.size() > longestPassword || password.find('\0') != password.npos) {
        return Response::error(422, "This is no password.");
    }
    const auto credentials = cutCredentials(email, password);
    if (!credentials) return Response::error(422, "Clients could not send this address and password.");
    return hashPassword(credentials->password);
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
    if (confirmation && *confirmation != password) return Response::error(422, "The two passwords differ.");
    auto hash = hashOfNewPassword(*email, password.value_or(""));
    if (auto* refusal = std::get_if<Response>(&hash)) return std::move(*refusal);
    const auto id = m_database.write(Database::nobody, [&](Connection& connection) -> std::optional<std::int64_t> {
        if (connection.run(addUser, *email, std::get<std::string>(hash)) == 0) return std::nullopt;
        return userWithEmail(connection, *email);
    });
    if (!id) return Response::error(409, "This e-mail address is taken.");
    // Who has just chosen the password need not prove it.
    rememberProof({*id, {}, firstPasswordVersion}, cutCredentials(*email, *password)->password);
    return userAnswer(*id);
}

Response Accounts::signOut(const User& user) {
    std::lock_guard guard(m_mutex);
    m_proofs.erase(user.id);
    return Response::json("{}");
}

Response Accounts::changePassword(const User& user, std::string_view form) {
    constexpr std::array<FormField, 2> fields{FormField{"old_password", true}, FormField{"new_password", true}};
    const auto values = readForm(form, fields);
    if (!values[0] || !values[1]) return Response::error(400, "The request names no passwords.");
    const auto account = find(m_database, user.email);
    if (!account || !isRight(*account, {user.email, *values[0]})) return Response::error(422, "The old password is wrong.");
    auto hash = hashOfNewPassword(user.email, *values[1]);
    if (auto* refusal = std::get_if<Response>(&hash)) return std::move(*refusal);
    return m_database.write(user.id, [&](Connection& connection) {
        const auto changed = connection.run(replacePassword, std::get<std::string>(hash), account->id, account->passwordVersion);
        return changed ? Response::json("{}") : Response::error(409, "The password has been changed meanwhile.");
    });
}

Response Accounts::askForReset(std::string_view query) {
    constexpr std::array<FormField, 1> fields{FormField{"email"}};
    const auto email = readForm(query, fields)[0];
    if (!email) return Response::error(400, "The request names no e-mail address.");
    // Clients insert the address as it is; what is between may have escaped it.
    for (const std::string& form : {*email, percentDecoded(*email)}) {
        if (!isAddress(form) || !find(m_database, form)) continue;
        if (isNewReset(form)) VLKLog::sharedInstance().logMessageAtLevel(100, "A new password is asked for by %@.", form);
        break;
    }
    return Response::json("{}");
}

bool Accounts::isNewReset(const std::string& email) {
    std::lock_guard guard(m_mutex);
    const auto now = m_now();
    if (m_resets.size() >= mostRemembered) m_resets.clear();
    auto [place, isNew] = m_resets.try_emplace(email, now);
    if (!isNew && now - place->second < failureWindow) return false;
    place->second = now;
    return true;
}

Response Accounts::verify(const User& user) const { return userAnswer(user.id); }

std::variant<User, Response> Accounts::authenticate(const Request& request) {
    const Response refusal = unauthorised();
    auto credentials = credentialsFromHeader(request.authorization);
    if (!credentials || credentials->email.size() > longestEmail || credentials->password.size() > 4 * longestPassword)
        return refusal;

    const auto account = find(m_database, credentials->email);
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
    if (!isRight(account ? *account : nobody(), *credentials) || !account) {
        addFailure(credentials->email);
        return refusal;
    }
    rememberProof(*account, credentials->password);
    return User{account->id, std::move(credentials->email)};
}

const Accounts::Account& Accounts::nobody() {
    static const Account nobody{0, hashPassword(randomBytes(16)), 0};
    return nobody;
}

void Accounts::rememberProof(const Account& account, std::string_view password) {
    Proof proof{account.passwordVersion, digestOf(account, password)};
    std::lock_guard guard(m_mutex);
    if (m_proofs.size() >= mostRemembered) m_proofs.clear();
    m_proofs.insert_or_assign(account.id, std::move(proof));
}

std::optional<Accounts::Account> Accounts::find(Database& database, std::string_view email) {
    return database.read([&](Connection& connection) -> std::optional<Account> {
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

NS::Result<std::string> Accounts::resetPassword(Database& database, std::string_view email) {
    const std::string bytes = randomBytes(15);
    std::string password = base64Encoding(bytes);
    std::replace(password.begin(), password.end(), '+', '-');
    std::replace(password.begin(), password.end(), '/', '_');
    const std::string hash = hashPassword(cutCredentials(email, password).value().password);
    const auto account = find(database, email);
    if (!account) return NS::Error::withDescription(NS::PlatformErrorDomain, 1, "there is no such user");
    const auto changed = database.write(account->id, [&](Connection& connection) {
        return connection.run(replacePassword, hash, account->id, account->passwordVersion);
    });
    if (!changed) return NS::Error::withDescription(NS::PlatformErrorDomain, 1, "the password has been changed meanwhile");
    return password;
}

}  // namespace velkor::service
