// Results: answers fetched whole, written, compared; failures.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "Sync/VLKSyncableObjectHasher.h"
#include "platform/persistence/PropertyList.h"
#include "tests/Sync/ControllerTest.h"

namespace velkor::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

class ResultsTest : public ControllerTest {
protected:
    NS::Value stored(std::string_view key) const {
        auto state = NS::dictionaryWithContentsOfFile(statePath());
        return state.ok() ? state.value()[key] : NS::Value();
    }
    std::string localHash() { return *VLKSyncableObjectHasher(store.newContext(), *controller).hashOfKnownShareableObjects(); }
    std::size_t listings() const { return service.requestCount("/users/7/known_objects/sync.json"); }
};

TEST_F(ResultsTest, receivedTransactionsAreWrittenAndAcknowledged) {
    addNote("sent");
    save();
    answerChanges({R"({"HIGHEST_XACTION":12,"SYNC_HASH":"IN_SYNC","refresh_interval":45,"new_xactions":[)" +
                   receivedInsert("Note", "r", R"(,"title":"received")") + "," + receivedInsert("Tag", "t") + "]}"});
    const auto before = NS::Date::now();
    sync();
    EXPECT_EQ(fetchObject(*host, "Note", "r")->valueForKey("title"), NS::Value("received"));
    EXPECT_THAT(pending(), IsEmpty());
    EXPECT_EQ(controller->batch(), nullptr);
    EXPECT_EQ(stored("HIGHEST_XACTION"), NS::Value(12));
    EXPECT_EQ(stored("WS_LAST_SCHEMA_SENT"), NS::Value("1.0"));
    EXPECT_EQ(controller->refreshInterval(), 45);
    EXPECT_GE(*controller->lastSync(), before);
    EXPECT_FALSE(controller->lastError());
    EXPECT_EQ(controller->cycleReport().sent, 1);
    EXPECT_EQ(controller->cycleReport().received, 2);
    EXPECT_EQ(listings(), 0U);
    sync();
    EXPECT_FALSE(changesRequest(1).contains("schema"));
    EXPECT_EQ(changesRequest(1)["HIGHEST_XACTION"], NS::Value(12));
}

TEST_F(ResultsTest, chunksGoOutUnderOneLock) {
    controller->setEnableChunking(true);
    for (int i = 0; i < 250; ++i) addNote("n" + std::to_string(i));
    save();
    sync();
    EXPECT_EQ(service.requestCount("/client/v1.5/"), 1U);
    EXPECT_EQ(service.requestCount("/users/7/transactions.json"), 3U);
    EXPECT_EQ(service.requestCount("/client/org"), 1U);
    EXPECT_EQ(controller->cycleReport().sent, 250);
}

TEST_F(ResultsTest, pagesAreFetchedUntilOneIsEmpty) {
    answerChanges({R"({"HIGHEST_XACTION":9,"SYNC_HASH":"IN_SYNC","batched_download_identifier":"id/1","new_xactions":[)" +
                   receivedInsert("Note", "first answer") + R"(]})"});
    const auto page = [](const std::string& transactions) {
        return FakeAnswer::json(R"({"HIGHEST_XACTION":77,"new_xactions":[)" + transactions + "]}");
    };
    service.script("GET", "/users/7/batchdownload.json",
                   {page(receivedInsert("Note", "a") + "," + receivedInsert("Note", "b")), page(receivedInsert("Tag", "c")),
                    FakeAnswer::json("{}")});
    sync();
    std::vector<std::string> pages;
    for (const auto& request : service.requests("/users/7/batchdownload.json")) pages.push_back(request.target.substr(27));
    EXPECT_THAT(pages, ElementsAre("?page=1&identifier=id/1", "?page=2&identifier=id/1", "?page=3&identifier=id/1"));
    EXPECT_THAT(guidsOf(*host, "Note"), ElementsAre("a", "b"));
    EXPECT_THAT(guidsOf(*host, "Tag"), ElementsAre("c"));
    EXPECT_EQ(stored("HIGHEST_XACTION"), NS::Value(9));
    EXPECT_EQ(controller->cycleReport().pages, 2);
    EXPECT_EQ(controller->cycleReport().received, 3);
}

TEST_F(ResultsTest, aFailedPageFailsTheWholeDownload) {
    addNote("n");
    save();
    answerChanges({R"({"HIGHEST_XACTION":9,"batched_download_identifier":4})"});
    service.script("GET", "/users/7/batchdownload.json",
                   {FakeAnswer::json(R"({"new_xactions":[)" + receivedInsert("Note", "a") + "]}"), FakeAnswer::json("{}", 409)});
    sync();
    EXPECT_EQ(controller->lastError()->code(), 409);
    EXPECT_THAT(guidsOf(*host, "Note"), ElementsAre("n"));
    EXPECT_THAT(pending(), ElementsAre("n INSERT"));
    EXPECT_EQ(stored("HIGHEST_XACTION"), NS::Value(-1));
}

TEST_F(ResultsTest, aFailedRequestRollsBackAndKeepsTheChanges) {
    for (const FakeAnswer& answer : {FakeAnswer::json("{}", 500), FakeAnswer::notJson(), FakeAnswer::closeAtOnce(),
                                     FakeAnswer::json(R"({"HIGHEST_XACTION":9})").cutOff(3)}) {
        addNote("n");
        save();
        bool continued = false;
        service.script("POST", "/users/7/transactions.json", {answer});
        controller->setLastSync(NS::Date(1));
        controller->setContinuation([&] { continued = true; });
        controller->sendUpdates();
        ASSERT_TRUE(runUntil([this] { return controller->cycleReport().unlockAnswered; }));
        settle();
        EXPECT_TRUE(controller->lastError());
        EXPECT_THAT(pending(), ElementsAre("n INSERT"));
        EXPECT_EQ(controller->lastSync(), NS::Date(1));
        EXPECT_TRUE(continued);
        EXPECT_TRUE(stored("TRANSACTION_QUEUE"));
        EXPECT_EQ(controller->cycleReport().sent, 0);
    }
    const auto rollbacks = service.requests("/transactions/rollback.json");
    ASSERT_EQ(rollbacks.size(), 4U);
    EXPECT_EQ(rollbacks[0].body, "instance_id=" + *controller->instanceId() + "&");
    EXPECT_THAT(traffic().back(), StartsWith("GET /client/org"));
}

TEST_F(ResultsTest, hashesDecideAboutAListing) {
    addNote("n");
    save();
    const std::string same = localHash();
    service.script("POST", "/users/7/known_objects/sync.json", {FakeAnswer::json("{}")});
    struct Case {
        std::string hash;
        std::size_t expected;
    };
    std::string upper = same;
    upper[0] = static_cast<char>(upper[0] ^ 0x20);
    for (const auto& [hash, expected] :
         {Case{"\"" + same + "\"", 0}, Case{"\" \\n" + same + "\\r\\n\"", 0}, Case{"\"IN_SYNC\"", 0},
          Case{"\"" + upper + "\"", 1}, Case{"\"OUT_OF_SYNC\"", 1}, Case{"null", 1}, Case{"5", 1}}) {
        SCOPED_TRACE(hash);
        answerChanges({R"({"HIGHEST_XACTION":5,"SYNC_HASH":)" + hash + "}"});
        controller->setLastSync(std::nullopt);
        const auto before = listings();
        sync();
        EXPECT_EQ(listings() - before, expected);
        EXPECT_TRUE(controller->lastSync());
        EXPECT_EQ(controller->cycleReport().listings, static_cast<std::int64_t>(expected));
    }
}

TEST_F(ResultsTest, anAnswerWithoutItsNumberLeavesTheKeptOne) {
    for (const auto& answer : {R"({"SYNC_HASH":"IN_SYNC"})", R"({"SYNC_HASH":"IN_SYNC","HIGHEST_XACTION":[1]})",
                               R"({"SYNC_HASH":"IN_SYNC","HIGHEST_XACTION":"bad\u0001text"})"}) {
        controller->syncState()->set("HIGHEST_XACTION", 3);
        answerChanges({answer});
        sync();
        EXPECT_EQ(stored("HIGHEST_XACTION"), NS::Value(3));
        EXPECT_EQ((*controller->syncState())["HIGHEST_XACTION"], NS::Value(3));
    }
}

TEST_F(ResultsTest, aSaveMidCycleKeepsTheStateWhole) {
    // More than a thousand pending: the saves between the chunks may wait, what is kept is always one whole state.
    controller->load();
    controller->setEnableChunking(true);
    for (int i = 0; i < 1500; ++i) addNote("n" + std::to_string(i));
    save();
    controller->save();
    std::vector<std::pair<std::int64_t, std::size_t>> seen;
    int number = 0;
    service.route("POST", "/users/7/transactions.json", [&](const FakeRequest&) {
        return FakeAnswer::json(NS::format(R"({"HIGHEST_XACTION":%d,"SYNC_HASH":"IN_SYNC"})", ++number * 100));
    });
    std::size_t writes = 0;
    ino_t last = 0;
    controller->addObserverForKeyPath("cycleReport", [&](NS::Observable&, const NS::Dictionary&) {
        struct stat info {};
        if (::stat(statePath().c_str(), &info) == 0 && info.st_ino != last) ++writes, last = info.st_ino;
    });
    sync();
    EXPECT_EQ(service.requestCount("/users/7/transactions.json"), 15U);
    EXPECT_EQ(stored("HIGHEST_XACTION"), NS::Value(1500));
    EXPECT_LT(writes, 14U);
    controller->dropPendingTransactions();
    controller->load();
    EXPECT_THAT(pending(), IsEmpty());
}

TEST_F(ResultsTest, anAnswerAcknowledgesTheBatchOfItsOwnRequestOnly) {
    service.script(
        "POST", "/users/7/transactions.json",
        {FakeAnswer::json(R"({"SYNC_HASH":"IN_SYNC"})").heldUntilReleased(), FakeAnswer::json("{}", 500).heldUntilReleased()});
    controller->sendUpdates();
    ASSERT_TRUE(service.awaitRequests(1, "/users/7/transactions.json"));
    // The unlock of a login lets a second cycle begin beside the one that waits for its answer.
    controller->loginWithEmailAddress(*controller->emailAddress(), *controller->userPassword(), nullptr);
    ASSERT_TRUE(runUntil([this] { return !controller->syncInProgress(); }));
    addNote("n");
    save();
    controller->sendUpdates();
    ASSERT_TRUE(service.awaitRequests(2, "/users/7/transactions.json"));
    service.release();
    ASSERT_TRUE(runUntil([this] { return controller->lastSync().has_value(); }));
    EXPECT_EQ(controller->cycleReport().sent, 0);
    service.release();
    ASSERT_TRUE(runUntil([this] { return controller->lastError().has_value(); }));
    EXPECT_THAT(pending(), ElementsAre("n INSERT"));
}

TEST_F(ResultsTest, logsItsMessages) {
    const auto cycle = [this](const std::string& answer) {
        return [this, answer] {
            answerChanges({answer});
            sync();
        };
    };
    const std::string batched = R"({"batched_download_identifier":"x","SYNC_HASH":"IN_SYNC"})";
    service.script("GET", "/users/7/batchdownload.json", {FakeAnswer::json("{}")});
    service.script("POST", "/users/7/known_objects/sync.json", {FakeAnswer::json("{}")});
    const std::string same = localHash();
    checkLogCases({
        {"a page", 300, cycle(batched), {"Downloading page: 1 of transactions."}},
        {"an answer", 400, cycle(R"({"SYNC_HASH":"IN_SYNC"})"), {"Received data from server: {\n    SYNC_HASH = IN_SYNC;\n}"}},
        {"out of sync", 100, cycle(R"({"SYNC_HASH":"OUT_OF_SYNC"})"), {"Server says we're out of sync!!"}},
        {"hashes",
         300,
         [&] {
             controller->lastKnownObjectTimes().clear();
             cycle(R"({"SYNC_HASH":" x "})")();
         },
         {"Local hash: " + same, "Remote hash: x"}},
        {"looping",
         100,
         [&] {
             controller->lastKnownObjectTimes() = {NS::Date::now(), NS::Date::now(), NS::Date::now()};
             cycle(NS::format(R"({"SYNC_HASH":"%@"})", same))();
         },
         {"Local hash: " + same, "Remote hash: " + same,
          "Seems like we're looping on known objects. Here's what I think server should have:", "(\n)"}},
    });
    LogCapture log;
    service.script("POST", "/users/7/transactions.json", {FakeAnswer::json("{}", 503)});
    sync();
    EXPECT_THAT(log.entries(), ElementsAre(NS::format("VLK Error: %@ while sending changes.", *controller->lastError())));
}

}  // namespace
}  // namespace velkor::test
