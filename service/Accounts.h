#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <variant>

#include "platform/base/Result.h"
#include "service/Database.h"
#include "service/HttpMessage.h"
#include "service/Passwords.h"

namespace velkor::service {

/// Who a request comes from.
struct User {
    std::int64_t id = 0;
    std::string email;
};

/// Users and the proof of who they are. A password that was found right is remembered in memory, so that only a first request
/// pays for the slow hash. Five failures within a minute slow an account: then its unproven requests are checked one a second.
/// Any thread.
class Accounts {
public:
    using Clock = std::chrono::steady_clock;

    /// `now` is a test's own clock.
    explicit Accounts(Database& database, std::function<Clock::time_point()> now = Clock::now);

    /// POST users.json: adds an account.
    Response signUp(std::string_view json);
    /// DELETE users/sign_out.json: forgets that the password was proven.
    Response signOut(const User& user);
    /// POST users/change_password.json
    Response changePassword(const User& user, std::string_view form);
    /// GET users/send_password_reset.json: tells the operator, in the log, that the account's owner asks for a new password. The
    /// answer does not tell whether there is such an account.
    Response askForReset(std::string_view query);
    /// GET transactions/verify.json
    Response verify(const User& user) const;

    /// Gives the account a new password of the service's own, which is returned; the error says what was not found. Also while a
    /// server runs on the same database.
    static NS::Result<std::string> resetPassword(Database& database, std::string_view email);

    /// The user whose basic authentication the request carries, or the answer that refuses it.
    std::variant<User, Response> authenticate(const Request& request);

private:
    struct Account;
    struct Proof {
        std::int64_t passwordVersion;
        std::string digest;
    };
    struct Failures {
        std::deque<Clock::time_point> times;  // of the last five
        Clock::time_point nextCheck;
    };

    static std::optional<Account> find(Database& database, std::string_view email);
    /// Checked in place of an unknown user, so that time does not tell it from a known one.
    static const Account& nobody();
    void rememberProof(const Account& account, std::string_view password);
    bool isProven(const Account& account, const std::string& digest) const;
    /// Checks the password the slow way.
    bool isRight(const Account& account, const Credentials& credentials) const;
    /// How long the account's next check has to wait.
    std::chrono::milliseconds delayOfCheck(const std::string& email);
    void addFailure(const std::string& email);
    std::string digestOf(const Account& account, std::string_view password) const;
    /// Whether the account's latest question for a reset is a while ago.
    bool isNewReset(const std::string& email);

    Database& m_database;
    const std::function<Clock::time_point()> m_now;
    const std::string m_secret;  // of this process, mixed into the digests
    mutable std::mutex m_mutex;  // guards the rest
    std::unordered_map<std::int64_t, Proof> m_proofs;
    std::unordered_map<std::string, Failures> m_failures;
    std::unordered_map<std::string, Clock::time_point> m_resets;  // when one was last asked for
};

}  // namespace velkor::service
