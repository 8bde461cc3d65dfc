// Known-objects reconciliation.
#include <gmock/gmock.h>

#include "PelmoLib/encodings/NSDate+Utils.h"
#include "platform/concurrency/RunLoop.h"
#include "platform/persistence/PropertyList.h"
#include "tests/Sync/ControllerTest.h"

namespace velkor::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class KnownObjectsTest : public ControllerTest {
protected:
    static constexpr std::string_view endpoint = "/users/7/known_objects/sync.json";
    KnownObjectsTest() {
        answerChanges({R"({"HIGHEST_XACTION":5,"SYNC_HASH":"OUT_OF_SYNC"})", R"({"HIGHEST_XACTION":8,"SYNC_HASH":"IN_SYNC"})"});
    }
    void answerListing(const FakeAnswer& answer) { service.script("POST", endpoint, {answer}); }
};

TEST_F(KnownObjectsTest, listsWhatItHasAndBringsWhatTheServiceLacks) {
    addNote("n");
    insertObject(*host, "Tag", "t");
    insertObject(*host, "Notebook", "private", {{"doNotSynchronize", true}});
    addNote("old", {{"expired", true}});
    save();
    controller->dropPendingTransactions();
    answerListing(FakeAnswer::json(R"({"HIGHEST_XACTION":6,"unknown_objects":["t","nowhere"],"new_xactions":[)" +
                                   receivedInsert("Note", "r") + "]}"));
    sync();
    const auto listing = body(endpoint, 0);
    EXPECT_THAT(keysOf(listing), ElementsAre("client_date", "allObjects", "protocol_version", "app_id"));
    EXPECT_EQ(listing["client_date"], NS::Value(toISO8601(todayAtMidnight())));
    EXPECT_EQ(listing["allObjects"], NS::Value(NS::Array{"n", "t"}));
    EXPECT_EQ(listing["protocol_version"], NS::Value("1.5"));
    EXPECT_TRUE(fetchObject(*host, "Note", "r"));
    EXPECT_THAT(keysOf(*changesRequest(1)["xactions"].asDictionary()), ElementsAre("t"));
    EXPECT_EQ(changesRequest(1)["HIGHEST_XACTION"], NS::Value(6));
    EXPECT_EQ(service.requestCount("/client/v1.5/"), 1U) << "the inserts go out under the same lock";
    EXPECT_EQ(controller->knownObjectsCallCount(), 1);
    EXPECT_EQ(controller->cycleReport().listings, 1);
    EXPECT_EQ(controller->cycleReport().received, 1);
    EXPECT_FALSE(controller->processingObjectListing());
}

TEST_F(KnownObjectsTest, anAnswerWithNothingUnknownEndsTheCycle) {
    for (const auto* answer : {R"({"HIGHEST_XACTION":6,"unknown_objects":[]})", R"({"HIGHEST_XACTION":6})"}) {
        answerChanges({R"({"SYNC_HASH":"OUT_OF_SYNC"})"});
        answerListing(FakeAnswer::json(answer));
        const auto requests = service.requestCount("/users/7/transactions.json");
        controller->setLastSync(std::nullopt);
        sync();
        EXPECT_EQ(service.requestCount("/users/7/transactions.json"), requests + 1);
        EXPECT_TRUE(controller->lastSync());
        EXPECT_EQ((*controller->syncState())["HIGHEST_XACTION"], NS::Value(6));
    }
}

TEST_F(KnownObjectsTest, aBatchedAnswerIsFetchedByPages) {
    answerListing(FakeAnswer::json(R"({"HIGHEST_XACTION":6,"batched_download_identifier":"k","new_xactions":[)" +
                                   receivedInsert("Note", "no") + "]}"));
    service.script("GET", "/users/7/batchdownload.json?page=1",
                   {FakeAnswer::json(R"({"new_xactions":[)" + receivedInsert("Note", "paged") + "]}")});
    service.script("GET", "/users/7/batchdownload.json?page=2", {FakeAnswer::json("{}")});
    sync();
    EXPECT_THAT(guidsOf(*host, "Note"), ElementsAre("paged"));
    EXPECT_EQ((*controller->syncState())["HIGHEST_XACTION"], NS::Value(6));
}

TEST_F(KnownObjectsTest, aFailedListingOrPageEndsTheCycle) {
    LogCapture log;
    answerListing(FakeAnswer::json("{}", 500));
    sync();
    answerChanges({R"({"HIGHEST_XACTION":5,"SYNC_HASH":"OUT_OF_SYNC"})"});
    answerListing(FakeAnswer::json(R"({"batched_download_identifier":"k"})"));
    service.script("GET", "/users/7/batchdownload.json", {FakeAnswer::json("{}", 409)});
    sync();
    const auto text = [](int code) {
        return NS::format("VLK Error: %@ while sending object listing", NS::Error(NS::NetworkErrorDomain, code));
    };
    EXPECT_THAT(log.entries(),
                ElementsAre("Server says we're out of sync!!", text(500), "Server says we're out of sync!!", text(409)));
    EXPECT_FALSE(controller->processingObjectListing());
    EXPECT_FALSE(controller->lastError());
    EXPECT_EQ(service.requestCount("/transactions/rollback.json"), 0U);
    EXPECT_EQ((*controller->syncState())["HIGHEST_XACTION"], NS::Value(5));
}

TEST_F(KnownObjectsTest, aStoreThatTheHostHasClosedIsNotTakenForAnEmptyOne) {
    bool closed = false;
    controller.reset();
    controller = std::make_unique<TestController>(service.url(), [&] { return closed ? nullptr : store.newContext(); });
    controller->setEmailAddress("ann@example.org");
    controller->setUserPassword("secret");
    controller->setStateSavePath(statePath());
    closed = true;
    const std::string received = R"({"HIGHEST_XACTION":9,"new_xactions":[)" + receivedInsert("Note", "r") + "]}";
    for (const std::string& answer :
         {std::string(R"({"HIGHEST_XACTION":8,"SYNC_HASH":"OUT_OF_SYNC"})"), std::string(R"({"SYNC_HASH":"x"})"), received}) {
        SCOPED_TRACE(answer);
        answerChanges({answer});
        sync();
        EXPECT_EQ((*controller->syncState())["HIGHEST_XACTION"], NS::Value(8));
        EXPECT_TRUE(controller->lastError());
        EXPECT_EQ(service.requestCount(endpoint), 0U);
        EXPECT_TRUE(controller->cycleReport().unlockAnswered);
    }
}

TEST_F(KnownObjectsTest, theBodyNamesOnlyWhatIsSet) {
    controller->setAppId(std::nullopt);
    controller->setApiKey("key");
    controller->setUserId(7);
    answerListing(FakeAnswer::json("{}"));
    controller->sendObjectListing({});
    ASSERT_TRUE(service.awaitRequests(1, endpoint));
    EXPECT_THAT(keysOf(body(endpoint, 0)), ElementsAre("client_date", "allObjects", "protocol_version", "api_key"));
    EXPECT_TRUE(controller->processingObjectListing());
    ASSERT_TRUE(runUntil([this] { return controller->cycleReport().unlockAnswered; }));
}

TEST_F(KnownObjectsTest, threeListingsWithinTwentyMinutesAreALoop) {
    auto& times = controller->lastKnownObjectTimes();
    struct Case {
        NS::Array times;
        bool loop;
    };
    const auto at = [](double seconds) { return NS::Date(seconds); };
    for (const auto& [given, loop] : {Case{{}, false}, Case{{at(0), at(1)}, false}, Case{{at(0), at(1), at(1199.9)}, true},
                                      Case{{at(0), at(1), at(1200)}, false}}) {
        times = given;
        EXPECT_EQ(controller->areWeLoopingOnKnownObjects(), loop);
    }
    controller->storeKnownObjectsTime();
    ASSERT_EQ(times.size(), 3U);
    EXPECT_EQ(times[0], NS::Value(at(1)));
    EXPECT_GT(times[2].asDate()->timeIntervalSince1970(), 1e9);
    bool onAnotherThread = true;
    bool answered = false;
    controller->hashingQueue().addOperation([&] {
        onAnotherThread = controller->areWeLoopingOnKnownObjects();
        NS::RunLoop::main().post([&] { answered = true; });
    });
    ASSERT_TRUE(runUntil([&] { return answered; }));
    EXPECT_FALSE(onAnotherThread);
}

TEST_F(KnownObjectsTest, logsItsMessages) {
    controller->setUserId(7);
    answerListing(FakeAnswer::json(R"({"a":1})"));
    const auto list = [this] {
        const auto unlocks = service.requestCount("/client/org");
        controller->sendObjectListing({});
        runUntil([this, unlocks] { return service.requestCount("/client/org") > unlocks; });
        settle();
    };
    const auto listInVain = [this, list] {
        answerListing(FakeAnswer::json("{}", 500));
        list();
    };
    const auto failure = NS::format("VLK Error: %@ while sending object listing", NS::Error(NS::NetworkErrorDomain, 500));
    checkLogCases({
        {"an answer", 400, list, {"Received data from server for known objects: {\n    a = 1;\n}"}},
        {"a loop", 100, list, {"Warning: Known Objects has been called a lot. This could be an issue."}},
        {"a failure", 100, listInVain, {failure}},
    });
}

}  // namespace
}  // namespace velkor::test
