// A service in the test's own process, and clients that talk to its router.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "PelmoLib/encodings/NSData+Compression.h"
#include "PelmoLib/encodings/NSData_Base64.h"
#include "PelmoLib/encodings/VLKLog.h"
#include "json/CJSONDeserializer.h"
#include "json/CJSONSerializer.h"
#include "platform/base/Value.h"
#include "service/BlobTable.h"
#include "service/DiskBlobStore.h"
#include "service/Router.h"
#include "tests/support/PostgreSQL.h"
#include "tests/support/TemporaryDirectory.h"

namespace velkor::service {

/// Where a test's service keeps its data: embedded in a directory, or on the server of this run of the tests.
class TestDatabase {
public:
    explicit TestDatabase(const std::string& directory) : m_directory(directory) {
        if (test::isOnPostgreSQL()) m_server = std::make_unique<test::PostgreSQLDatabase>();
    }
    std::unique_ptr<Database> open() const {
        auto opened = m_server ? Database::openServer(m_server->url()) : Database::open(m_directory);
        if (!opened) throw std::runtime_error(opened.error().localizedDescription());
        return std::move(opened).value();
    }
    /// What tells the program to use it.
    std::vector<std::string> options() const {
        std::vector<std::string> words{"--data", m_directory};
        if (m_server) words.insert(words.end(), {"--database", m_server->url()});
        return words;
    }
    /// Null for an embedded one.
    const test::PostgreSQLDatabase* server() const { return m_server.get(); }

private:
    const std::string m_directory;
    std::unique_ptr<test::PostgreSQLDatabase> m_server;
};

inline std::string jsonText(const NS::Dictionary& dictionary) {
    return CJSONSerializer::serializer().serializeDictionary(dictionary, nullptr).value();
}

inline NS::Dictionary parsed(const std::string& json) {
    auto dictionary = CJSONDeserializer::deserializer().deserializeAsDictionary(json, nullptr);
    EXPECT_TRUE(dictionary) << json;
    return dictionary.value_or(NS::Dictionary());
}

/// Any way to send a request: to a router, or through a socket.
using Exchange = std::function<Response(const std::string& method, const std::string& target, const std::string& authorization,
                                        const std::string& body)>;

inline std::string basic(const std::string& email, const std::string& password) {
    return "Basic " + base64Encoding(email + ":" + password);
}

/// The object JSON as a payload.
inline std::string packed(const NS::Dictionary& object) {
    std::string compressed;
    appendZlibDeflate(compressed, jsonText(object));
    return base64Encoding(compressed);
}

/// A payload as it comes from the service.
inline NS::Dictionary unpacked(std::string_view wrapped) {
    std::string bytes, json;
    EXPECT_TRUE(appendBase64Decoding(bytes, wrapped.substr(1, wrapped.size() - 2)) && appendZlibInflate(json, bytes));
    return parsed(json);
}

/// A relationship description of the object JSON.
inline NS::Dictionary toMany(const std::string& name, const std::string& type, const std::vector<std::string>& guids) {
    NS::Array list;
    for (const auto& guid : guids) list.push_back(guid);
    return {{"name", name}, {"destination_type", type}, {"to_many", true}, {"destination_objects", list}};
}
inline NS::Dictionary toOne(const std::string& name, const std::string& type, const std::string& guid) {
    NS::Dictionary description{{"name", name}, {"destination_type", type}, {"to_many", false}};
    if (!guid.empty()) description.set("destination_object", guid);
    return description;
}

/// A transaction in wire form. The title tells versions of one object apart.
inline NS::Dictionary transaction(const std::string& type, const std::string& className, const std::string& guid,
                                  const std::string& title = "", const NS::Dictionary& relationships = {}) {
    NS::Dictionary member{{"xaction_time", "2024-05-06T07:08:09+0000"},
                          {"xaction_type", type},
                          {"xaction_object_type", className},
                          {"xaction_object_guid", guid}};
    if (type != "DELETE_XACTION") {
        NS::Dictionary attributes{{"guid", guid}, {"title", title}};
        member.set("xaction_object", packed({{"attributes", attributes}, {"relationships", relationships}}));
    }
    return member;
}
inline NS::Dictionary insertOf(const std::string& guid, const std::string& title = "", const NS::Dictionary& relationships = {}) {
    return transaction("INSERT_XACTION", "Note", guid, title, relationships);
}
inline NS::Dictionary deletionOf(const std::string& guid) { return transaction("DELETE_XACTION", "Note", guid); }

/// One installation of one user.
class TestClient {
public:
    TestClient(Exchange exchange, std::string email, std::string password, std::string instance, std::string app = "app")
        : m_exchange(std::move(exchange)),
          m_authorization(basic(email, password)),
          m_instance(std::move(instance)),
          m_app(std::move(app)) {}

    Response send(const std::string& method, const std::string& target, const std::string& body = "") {
        return m_exchange(method, target, m_authorization, body);
    }
    Response lock() {
        Response response = send("GET", "/client/v1.5/" + m_app + "/" + m_instance + "/lock.json");
        if (response.status == 200) m_user = *parsed(response.body)["user_id"].asInteger();
        return response;
    }
    Response unlock() { return send("GET", "/client/" + m_app + "/" + m_instance + "/unlock.json"); }
    Response rollback() { return send("POST", "/transactions/rollback.json", "instance_id=" + m_instance + "&"); }

    NS::Dictionary envelope(const std::vector<NS::Dictionary>& transactions, bool multiPart = false) const {
        NS::Dictionary members;
        for (const auto& member : transactions) members.set(member["xaction_object_guid"].stringOr("missing"), member);
        return {{"xactions", members},
                {"HIGHEST_XACTION", highest},
                {"current_time", "2024-05-06T07:08:09+0000"},
                {"protocol_version", "1.5"},
                {"app_id", m_app},
                {"model_version", "1.0"},
                {"instance_id", m_instance},
                {"multi_part", multiPart},
                {"client_date", "2024-05-06T00:00:00+0000"}};
    }
    Response post(const NS::Dictionary& request) {
        return send("POST", "/users/" + std::to_string(m_user) + "/transactions.json", jsonText(request));
    }
    Response changes(const std::vector<NS::Dictionary>& transactions, bool multiPart = false) {
        return post(envelope(transactions, multiPart));
    }
    Response page(std::int64_t number, const std::string& identifier) {
        return send("GET", "/users/" + std::to_string(m_user) + "/batchdownload.json?page=" + std::to_string(number) +
                               "&identifier=" + identifier);
    }

    Response listing(const std::vector<std::string>& guids) {
        NS::Array list;
        for (const auto& guid : guids) list.push_back(guid);
        const NS::Dictionary body{{"client_date", "2024-05-06T00:00:00+0000"}, {"allObjects", list}, {"app_id", m_app}};
        return send("POST", "/users/" + std::to_string(m_user) + "/known_objects/sync.json", jsonText(body));
    }

    /// Lock, changes, all pages, unlock: the transactions that came. HIGHEST_XACTION moves on.
    std::vector<NS::Dictionary> cycle(const std::vector<NS::Dictionary>& transactions = {}) {
        EXPECT_EQ(lock().status, 200);
        const Response response = changes(transactions);
        EXPECT_EQ(response.status, 200) << response.body;
        auto news = accept(response);
        EXPECT_EQ(unlock().status, 200);
        return news;
    }
    /// Takes an answer as a client does.
    std::vector<NS::Dictionary> accept(const Response& response) {
        const NS::Dictionary answer = parsed(response.body);
        std::vector<NS::Dictionary> news = transactionsOf(answer);
        if (const auto identifier = answer["batched_download_identifier"].asString()) {
            news.clear();
            for (std::int64_t number = 1;; ++number) {
                const Response next = page(number, std::string(*identifier));
                EXPECT_EQ(next.status, 200) << next.body;
                const auto more = transactionsOf(parsed(next.body));
                if (more.empty()) break;
                news.insert(news.end(), more.begin(), more.end());
            }
        }
        highest = *answer["HIGHEST_XACTION"].asInteger();
        hash = answer["SYNC_HASH"].stringOr("none");
        return news;
    }
    static std::vector<NS::Dictionary> transactionsOf(const NS::Dictionary& answer) {
        std::vector<NS::Dictionary> list;
        if (const NS::Array* news = answer["new_xactions"].asArray()) {
            for (const auto& element : *news) list.push_back(*(*element.asDictionary())["transaction"].asDictionary());
        }
        return list;
    }

    const std::string& instance() const { return m_instance; }
    std::int64_t user() const { return m_user; }

    std::int64_t highest = -1;
    std::string hash;

private:
    Exchange m_exchange;
    std::string m_authorization;
    std::string m_instance, m_app;
    std::int64_t m_user = 0;
};

/// The titles and guids of transactions, as "guid:title" or "guid:-" for a deletion, in the order of the list.
inline std::vector<std::string> summary(const std::vector<NS::Dictionary>& transactions) {
    std::vector<std::string> lines;
    for (const auto& member : transactions) {
        const auto type = member["xaction_type"].stringOr("");
        std::string title = "-";
        if (type == "EXPIRED_XACTION") title = "expired";
        if (type == "INSERT_XACTION" || type == "UPDATE_XACTION") {
            title = (*unpacked(*member["xaction_object"].asString())["attributes"].asDictionary())["title"].stringOr("");
        }
        lines.push_back(member["xaction_object_guid"].stringOr("") + ":" + title);
    }
    return lines;
}

/// A service on a database of its own, with the user "u@example.org", whose password is "secret". On PostgreSQL there are two,
/// which take the requests in turn, as two processes would.
class ServiceFixture : public testing::Test {
protected:
    ServiceFixture() { VLKLog::sharedInstance().setLogLevel(0); }

    void SetUp() override { start(); }

    void start(Router::Settings settings = {}) {
        for (auto* router : {&m_router, &m_otherRouter}) router->reset();
        m_blobStore.reset();
        for (auto* database : {&m_database, &m_otherDatabase}) database->reset();
        settings.now = [this] { return m_time.load(); };
        m_database = m_place.open();
        openBlobStore();
        m_router = std::make_unique<Router>(*m_database, *m_blobStore, settings);
        if (test::isOnPostgreSQL()) {
            m_otherDatabase = m_place.open();
            m_otherRouter = std::make_unique<Router>(*m_otherDatabase, *m_blobStore, settings);
        }
        if (!m_signedUp) m_signedUp = signUp("u@example.org", "secret").status == 200;
    }
    Response signUp(const std::string& email, const std::string& password) {
        const NS::Dictionary user{{"email", email}, {"password", password}, {"password_confirmation", password}};
        return exchange()("POST", "/users.json", "", jsonText({{"user", user}}));
    }
    Exchange exchange() {
        return [this](const std::string& method, const std::string& target, const std::string& authorization,
                      const std::string& body) {
            Request request;
            request.method = method;
            request.target = target;
            request.authorization = authorization;
            request.origin = "http://service";
            request.body = Body(body);
            const bool other = m_otherRouter && m_requests++ % 2 == 1;
            return (other ? m_otherRouter : m_router)->handle(request);
        };
    }
    TestClient client(const std::string& instance, const std::string& app = "app") {
        return TestClient(exchange(), "u@example.org", "secret", instance, app);
    }

    void openBlobStore() {
        const auto isWanted = [this](const std::string& name) {
            return m_database->read([&](Connection& connection) { return BlobTable::isUpload(connection, name); });
        };
        auto opened = DiskBlobStore::open(
            m_directory / "blobs", {.maximumBlob = 100'000, .now = [this] { return m_time.load(); }, .isWanted = isWanted});
        if (!opened) throw std::runtime_error(opened.error().localizedDescription());
        m_blobStore = std::move(opened).value();
    }

    test::TemporaryDirectory m_directory;
    TestDatabase m_place{m_directory / "data"};
    std::unique_ptr<Database> m_database;
    std::unique_ptr<Database> m_otherDatabase;  // null unless on PostgreSQL
    std::unique_ptr<DiskBlobStore> m_blobStore;
    std::unique_ptr<Router> m_router, m_otherRouter;
    std::atomic<std::int64_t> m_time = 1'700'000'000'000;
    int m_requests = 0;
    bool m_signedUp = false;
};

}  // namespace velkor::service
