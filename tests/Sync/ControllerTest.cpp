#include "tests/Sync/ControllerTest.h"

#include "PelmoLib/encodings/NSData+Compression.h"
#include "PelmoLib/encodings/NSData_Base64.h"
#include "json/CJSONDeserializer.h"
#include "platform/concurrency/RunLoop.h"

namespace velkor::test {

ControllerTest::ControllerTest(const NS::StoreOptions& options)
    : store(options), controller(newController()), host(store.newContext()) {
    scriptService();
}

ControllerTest::~ControllerTest() = default;

std::unique_ptr<TestController> ControllerTest::newController() {
    auto made = std::make_unique<TestController>(service.url(), [this] { return store.newContext(); });
    made->setAppId("org.velkor.test");
    made->setEmailAddress("ann@example.org");
    made->setUserPassword("secret");
    made->setStateSavePath(statePath());
    return made;
}

void ControllerTest::scriptService() {
    service.route("GET", "/client/", [](const FakeRequest&) { return FakeAnswer::json(R"({"user_id":7})"); });
    service.route("POST", "/transactions/rollback.json", [](const FakeRequest&) { return FakeAnswer::json("{}"); });
    answerChanges({R"({"HIGHEST_XACTION":5,"SYNC_HASH":"IN_SYNC"})"});
}

void ControllerTest::answerChanges(const std::vector<std::string>& answers) {
    std::vector<FakeAnswer> script;
    for (const std::string& answer : answers) script.push_back(FakeAnswer::json(answer));
    service.script("POST", "/users/7/transactions.json", script);
}

void ControllerTest::settle() {
    for (int turn = 0; turn < 5; ++turn) NS::RunLoop::main().dispatchPending();
}

bool ControllerTest::runUntil(const std::function<bool()>& condition) { return NS::RunLoop::main().runUntil(condition, 30); }

void ControllerTest::save() {
    const auto saved = host->save();
    ASSERT_TRUE(saved.ok()) << saved.error().description();
    settle();
}

void ControllerTest::sync() {
    controller->forceSync();
    ASSERT_TRUE(runUntil([this] { return controller->cycleReport().unlockAnswered || controller->cycleReport().lockError; }));
    settle();
}

std::vector<std::string> ControllerTest::described(const VLKTransactionMap& transactions) {
    std::vector<std::string> texts;
    for (const auto& [guid, transaction] : transactions) {
        const std::string type(transaction->type().value_or("(null)"));
        texts.push_back(guid + " " + type.substr(0, type.find('_')));
    }
    return texts;
}

NS::Dictionary ControllerTest::body(std::string_view prefix, std::size_t index) const {
    const auto requests = service.requests(prefix);
    if (index >= requests.size()) {
        ADD_FAILURE() << "no request " << index << " to " << prefix;
        return {};
    }
    return dictionaryWithJSONData(requests[index].body, nullptr).value_or(NS::Dictionary());
}

std::vector<std::string> ControllerTest::keysOf(const NS::Dictionary& dictionary) {
    std::vector<std::string> keys;
    for (const auto& entry : dictionary) keys.emplace_back(entry.key());
    return keys;
}

std::vector<std::string> ControllerTest::traffic() const {
    std::vector<std::string> lines;
    for (const auto& request : service.requests()) lines.push_back(request.method + " " + request.target);
    return lines;
}

std::string receivedInsert(std::string_view entity, std::string_view guid, std::string_view attributes) {
    const auto payload = NS::format(R"({"attributes":{"guid":"%@"%@},"relationships":{}})", guid, attributes);
    const auto packed = base64Encoding(*zlibDeflate(NS::Data(payload)));
    return NS::format(R"({"transaction":{"xaction_type":"INSERT_XACTION","xaction_object_type":"%@","xaction_object_guid":"%@",)"
                      R"("xaction_object":"#%@#"}})",
                      entity, guid, packed);
}

std::string receivedDelete(std::string_view entity, std::string_view guid) {
    return NS::format(
        R"({"transaction":{"xaction_type":"DELETE_XACTION","xaction_object_type":"%@","xaction_object_guid":"%@"}})", entity,
        guid);
}

}  // namespace velkor::test
