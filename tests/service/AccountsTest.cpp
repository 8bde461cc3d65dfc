#include "service/Accounts.h"

#include "platform/base/UTF8.h"
#include "tests/service/ServiceFixture.h"

namespace velkor::service {
namespace {

using namespace std::chrono_literals;

/// The header as clients build it: the first bytes of the pair, as many as it has UTF-16 code units.
std::string cutHeader(const std::string& email, const std::string& password) {
    const std::string pair = email + ":" + password;
    return "Basic " + base64Encoding(pair.substr(0, NS::utf16Length(pair)));
}

class AccountsTest : public ServiceFixture {
protected:
    int verify(const std::string& authorization) {
        return exchange()("GET", "/transactions/verify.json", authorization, "").status;
    }
};

TEST_F(AccountsTest, signUpChecksWhatItIsGiven) {
    auto status = [&](const std::string& body) { return exchange()("POST", "/users.json", "", body).status; };
    EXPECT_EQ(status(R"({"user":{"email":"new@example.org","password":"a","password_confirmation":"a"}})"), 200);
    EXPECT_EQ(status(R"({"user":{"email":"new@example.org","password":"b","password_confirmation":"b"}})"), 409);
    EXPECT_EQ(status(R"({"user":{"email":"x@example.org","password":"a","password_confirmation":"b"}})"), 422);
    EXPECT_EQ(status(R"({"user":{"email":"","password":"a","password_confirmation":"a"}})"), 422);
    EXPECT_EQ(status(R"({"user":{"email":"a:b","password":"a","password_confirmation":"a"}})"), 422);
    EXPECT_EQ(status(R"({"user":{"email":"x\ny","password":"a","password_confirmation":"a"}})"), 422);
    EXPECT_EQ(status(R"({"user":{"email":"x\u0000y","password":"a","password_confirmation":"a"}})"), 422);
    EXPECT_EQ(status(R"({"user":{"email":"x","password":"","password_confirmation":""}})"), 422);
    EXPECT_EQ(status(R"({"user":{"email":"x","password":7}})"), 422);
    EXPECT_EQ(status(R"({"user":{"email":"ääääää","password":"abc","password_confirmation":"abc"}})"), 422);
    EXPECT_EQ(status(R"({"user":[]})"), 400);
    EXPECT_EQ(status("no json"), 400);
    EXPECT_EQ(verify(basic("new@example.org", "a")), 200);
}

TEST_F(AccountsTest, anyPasswordWorksInTheFormInWhichClientsSendIt) {
    int number = 0;
    for (const std::string password : {"plain", "a&b=c", "with:colon", "ümläüt", "€€", "🙂x", " blank ", "100%"}) {
        const std::string email = "p" + std::to_string(++number) + "+odd&=@example.org";
        ASSERT_EQ(signUp(email, password).status, 200) << password;
        EXPECT_EQ(verify(cutHeader(email, password)), 200) << password;
        EXPECT_EQ(verify(basic(email, password)), 200) << password;
        EXPECT_EQ(verify(basic(email, password + "x")), 401) << password;
        EXPECT_EQ(verify(basic(email, "")), 401) << password;
    }
}

TEST_F(AccountsTest, aWrongPasswordIsRefusedBeforeABusyLock) {
    TestClient a = client("A");
    a.lock();
    EXPECT_EQ(exchange()("GET", "/client/v1.5/app/B/lock.json", basic("u@example.org", "wrong"), "").status, 401);
    EXPECT_EQ(exchange()("GET", "/client/v1.5/app/B/lock.json", basic("u@example.org", "secret"), "").status, 409);
}

TEST_F(AccountsTest, aPasswordIsChangedByWhoKnowsTheOldOne) {
    struct Case {
        const char* form;
        int status;
    };
    TestClient a = client("A");
    for (const auto& [form, status] :
         {Case{"", 400}, Case{"old_password=secret", 400}, Case{"new_password=x&", 400},
          Case{"old_password=wrong&new_password=x&", 422}, Case{"old_password=secret&new_password=&", 422},
          Case{"new_password=a&b=c+d%20%C3%BC&old_password=secret&", 200}}) {
        EXPECT_EQ(a.send("POST", "/users/change_password.json", form).status, status) << form;
    }
    EXPECT_EQ(verify(basic("u@example.org", "secret")), 401);
    EXPECT_EQ(verify(cutHeader("u@example.org", "a&b=c+d ü")), 200);
    EXPECT_EQ(a.lock().status, 401);
}

TEST_F(AccountsTest, aResetIsForTheOperatorToAnswer) {
    ASSERT_EQ(signUp("odd+name&co@example.org", "forgotten").status, 200);
    auto ask = [&](const std::string& query) { return exchange()("GET", "/users/send_password_reset.json" + query, "", ""); };
    // Nobody learns from the answer who has an account.
    EXPECT_EQ(ask("?email=odd+name&co@example.org").body, ask("?email=nobody@example.org").body);
    EXPECT_EQ(ask("?email=odd%2Bname%26co@example.org").status, 200);
    EXPECT_EQ(ask("?email=\xFF%FF").status, 400);
    EXPECT_EQ(ask("").status, 400);
    EXPECT_EQ(verify(basic("odd+name&co@example.org", "forgotten")), 200);

    EXPECT_FALSE(Accounts::resetPassword(*m_database, "nobody@example.org"));
    const auto fresh = Accounts::resetPassword(*m_database, "odd+name&co@example.org");
    ASSERT_TRUE(fresh);
    EXPECT_EQ(verify(basic("odd+name&co@example.org", "forgotten")), 401);
    EXPECT_EQ(verify(basic("odd+name&co@example.org", fresh.value())), 200);
}

TEST_F(AccountsTest, signOutForgetsNothingButTheProof) {
    TestClient a = client("A");
    EXPECT_EQ(a.send("DELETE", "/users/sign_out.json").status, 200);
    EXPECT_EQ(a.lock().status, 200);
}

TEST_F(AccountsTest, fiveFailuresSlowOnlyThoseWhoHaveNotProvenThemselves) {
    auto now = Accounts::Clock::now();
    Accounts accounts(*m_database, [&] { return now; });
    auto attempt = [&](const std::string& password, bool postponed = false) {
        Request request;
        request.authorization = basic("u@example.org", password);
        request.postponed = postponed;
        return accounts.authenticate(request);
    };
    auto statusOf = [](const std::variant<User, Response>& result) {
        if (std::holds_alternative<User>(result)) return 200;
        const Response& response = std::get<Response>(result);
        return response.postpone ? static_cast<int>(response.postpone->count()) : response.status;
    };
    for (int i = 0; i < 5; ++i) EXPECT_EQ(statusOf(attempt("wrong")), 401);
    EXPECT_EQ(statusOf(attempt("wrong")), 1000);
    EXPECT_EQ(statusOf(attempt("secret")), 2000);
    EXPECT_EQ(statusOf(attempt("wrong", true)), 401);
    EXPECT_EQ(statusOf(attempt("secret", true)), 200);
    EXPECT_EQ(statusOf(attempt("secret")), 200);  // proven now
    for (int i = 0; i < 8; ++i) attempt("wrong");
    EXPECT_EQ(statusOf(attempt("wrong")), 429);
    now += 61s;
    EXPECT_EQ(statusOf(attempt("wrong")), 401);
}

}  // namespace
}  // namespace velkor::service
