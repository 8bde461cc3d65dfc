#include "service/Router.h"

#include "tests/service/ServiceFixture.h"

namespace velkor::service {
namespace {

class RouterTest : public ServiceFixture {};

TEST_F(RouterTest, pathsAndMethods) {
    struct Case {
        std::string method, target;
        int status;
    };
    const std::vector<Case> cases{
        {"GET", "/", 404},
        {"GET", "", 404},
        {"GET", "/users.json", 405},
        {"POST", "/users/sign_out.json", 405},
        {"GET", "/users/1/transactions.json", 405},
        {"GET", "/client/v1.5/app/A/lock.json", 200},
        {"GET", "/client/v1.4/app/A/lock.json", 404},
        {"GET", "/client/v1.5/app/lock.json", 404},
        {"GET", "/client/v1.5/a/slashed/app/A/lock.json", 200},
        {"GET", "/client/v1.5/a%2Fslashed%2Fapp/A/lock.json", 200},
        {"GET", "/client/v1.5/odd%20%zz%/A/lock.json", 200},
        {"GET", "/client/v1.5//A/lock.json", 404},
        {"GET", "/client/app/A/unlock.json", 200},
        {"GET", "/transactions/verify.json", 200},
        {"GET", "/transactions/verify.json?x=y", 200},
        {"GET", "/transactions/verify.json/", 404},
        {"GET", "/users/1/batchdownload.json", 400},
        {"GET", "/users/2/batchdownload.json?page=1&identifier=x", 403},
        {"GET", "/" + std::string(10'000, 'x'), 404},
    };
    TestClient a = client("A");
    for (const auto& [method, target, status] : cases) {
        const Response response = a.send(method, target);
        EXPECT_EQ(response.status, status) << method << ' ' << target.substr(0, 80);
        EXPECT_EQ(parsed(response.body).contains("error"), status != 200);
    }
}

TEST_F(RouterTest, everyCallButSignUpNeedsTheUser) {
    const std::vector<std::pair<std::string, std::string>> calls{
        {"DELETE", "/users/sign_out.json"},
        {"GET", "/transactions/verify.json"},
        {"POST", "/transactions/rollback.json"},
        {"GET", "/client/v1.5/app/A/lock.json"},
        {"GET", "/client/app/A/unlock.json"},
        {"POST", "/users/1/transactions.json"},
        {"GET", "/users/1/batchdownload.json"},
        {"POST", "/client_apps/app/schema.json"},
        {"POST", "/users/1/known_objects/sync.json"},
        {"POST", "/users/change_password.json"},
        {"DELETE", "/users/account.json"},
        {"DELETE", "/client_apps/app/users/u@example.org/delete_all_data.json"},
        {"POST", "/clientinfo.json"},
        {"GET", "/clientinfo.json"},
    };
    for (const auto& [method, target] : calls) {
        for (const std::string& authorization : {std::string(), std::string("Basic"), std::string("Basic !!!"),
                                                 std::string("Bearer x"), basic("nobody" + method + target, "secret")}) {
            EXPECT_EQ(exchange()(method, target, authorization, "").status, 401)
                << method << ' ' << target << ' ' << authorization;
        }
    }
    EXPECT_EQ(exchange()("GET", "/transactions/verify.json", basic("u@example.org", "wrong"), "").status, 401);
}

TEST_F(RouterTest, largeBodiesAreAskedForFirst) {
    start({.maximumBody = 1'000'000});
    auto admitted = [&](const std::string& target, const std::string& authorization, std::size_t size) {
        Request head;
        head.method = "POST";
        head.target = target;
        head.authorization = authorization;
        const auto refusal = m_router->admit(head, size);
        return refusal ? refusal->status : 200;
    };
    const std::string user = basic("u@example.org", "secret");
    EXPECT_EQ(admitted("/users/1/transactions.json", user, 1'000'000), 200);
    EXPECT_EQ(admitted("/users/1/transactions.json", user, 1'000'001), 413);
    EXPECT_EQ(admitted("/users/1/known_objects/sync.json", user, 1'000'000), 200);
    EXPECT_EQ(admitted("/users/1/transactions.json", basic("u@example.org", "wrong"), 500'000), 401);
    EXPECT_EQ(admitted("/users.json", "", 500'000), 413);
    EXPECT_EQ(admitted("/transactions/rollback.json", user, 500'000), 413);
    EXPECT_EQ(admitted("/nowhere", user, 500'000), 404);
    m_database->write(Database::nobody, [](Connection& connection) {
        connection.runOnce("DROP TABLE users");
        return 0;
    });
    EXPECT_EQ(admitted("/users/1/transactions.json", user, 500'000), 503);
}

TEST_F(RouterTest, schemasAreKeptAsSent) {
    TestClient a = client("A");
    EXPECT_EQ(a.send("POST", "/client_apps/app/schema.json", R"([{"name":"Note","attributes":[]}])").status, 200);
    EXPECT_EQ(a.send("POST", "/client_apps/app/schema.json", "[]").status, 200);
    for (const char* text : {"", "{}", "[", "[1"})
        EXPECT_EQ(a.send("POST", "/client_apps/app/schema.json", text).status, 400) << text;
    NS::Dictionary envelope = a.envelope({});
    envelope.set("schema", R"([{"name":"Note","attributes":[{"name":"guid","type":700}]}])");
    a.lock();
    EXPECT_EQ(a.post(envelope).status, 200);
    envelope.set("schema", "no schema");
    EXPECT_EQ(a.post(envelope).status, 200);
    constexpr static Sql readSchema{"SELECT model_version, text FROM schemas", ":tt"};
    m_database->read([](Connection& connection) {
        auto rows = connection.query(readSchema);
        EXPECT_TRUE(rows.next());
        EXPECT_EQ(rows.text(0), "1.0");
        EXPECT_EQ(rows.text(1), R"([{"name":"Note","attributes":[{"name":"guid","type":700}]}])");
        return 0;
    });
}

}  // namespace
}  // namespace velkor::service
