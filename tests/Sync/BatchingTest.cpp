// Batching: which of the pending changes a request carries, and what else it says.
#include <gmock/gmock.h>

#include <stdexcept>

#include "PelmoLib/VLKSyncableObject.h"
#include "PelmoLib/encodings/NSData+Compression.h"
#include "PelmoLib/encodings/NSData_Base64.h"
#include "PelmoLib/encodings/NSDate+Utils.h"
#include "PelmoLib/encodings/VLKLog.h"
#include "Sync/VLKGenericValueTransaction.h"
#include "json/CJSONDeserializer.h"
#include "objectstore/ObjectClass.h"
#include "objectstore/StoreReadFailure.h"
#include "platform/concurrency/NotificationCenter.h"
#include "tests/Sync/ControllerTest.h"

namespace velkor::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class BatchingTest : public ControllerTest {
protected:
    NS::Dictionary batched() {
        return dictionaryWithJSONData(controller->batchCurrentChanges().value_or(""), nullptr).value_or(NS::Dictionary());
    }
    void addNotes(int count) {
        for (int i = 0; i < count; ++i) addNote("n" + std::to_string(i));
        save();
    }
    static std::size_t countOf(const NS::Dictionary& request) { return request["xactions"].asDictionary()->size(); }
};

TEST_F(BatchingTest, theEnvelopeNamesClientProtocolAndState) {
    controller->setApiKey("key");
    controller->setInstanceId("instance");
    addNotes(1);
    const auto request = batched();
    EXPECT_THAT(keysOf(request), ElementsAre("xactions", "HIGHEST_XACTION", "current_time", "protocol_version", "app_id",
                                             "api_key", "model_version", "instance_id", "multi_part", "client_date", "schema"));
    EXPECT_EQ(request["HIGHEST_XACTION"], NS::Value(-1));
    EXPECT_EQ(request["protocol_version"], NS::Value("1.5"));
    EXPECT_EQ(request["app_id"], NS::Value("org.velkor.test"));
    EXPECT_EQ(request["api_key"], NS::Value("key"));
    EXPECT_EQ(request["model_version"], NS::Value("1.0"));
    EXPECT_EQ(request["instance_id"], NS::Value("instance"));
    EXPECT_EQ(request["multi_part"], NS::Value(false));
    EXPECT_EQ(request["client_date"], NS::Value(toISO8601(todayAtMidnight())));
    EXPECT_TRUE(dateWithISO8601Date(request["current_time"].stringOr("")));
    EXPECT_TRUE(request["schema"].isString());
    const NS::Dictionary* transaction = (*request["xactions"].asDictionary())["n0"].asDictionary();
    ASSERT_TRUE(transaction);
    EXPECT_EQ((*transaction)["xaction_type"], NS::Value("INSERT_XACTION"));

    controller->setAppId(std::nullopt);
    controller->setApiKey(std::nullopt);
    controller->syncState()->set("WS_LAST_SCHEMA_SENT", "1.0");
    EXPECT_THAT(keysOf(batched()), ElementsAre("xactions", "HIGHEST_XACTION", "current_time", "protocol_version", "model_version",
                                               "instance_id", "multi_part", "client_date"));
    controller->setLatestModelVersion("2.0");
    EXPECT_TRUE(batched().contains("schema"));
}

TEST_F(BatchingTest, whatTheServiceCannotDoWithoutIsDemanded) {
    controller->setInstanceId(std::nullopt);
    EXPECT_THROW(controller->batchCurrentChanges(), NS::Exception);
    controller->setInstanceId("instance");
    controller->setLatestModelVersion(std::nullopt);
    EXPECT_THROW(controller->batchCurrentChanges(), NS::Exception);
    controller->setLatestModelVersion("1.0");
    controller->setSyncState(std::nullopt);
    addNotes(1);
    // Inside a cycle it ends the cycle: the change stays pending, the service is unlocked, the error is told.
    sync();
    EXPECT_EQ(controller->lastError()->domain(), NS::VelkorErrorDomain);
    EXPECT_THAT(pending(), ElementsAre("n0 INSERT"));
    EXPECT_EQ(service.requestCount("/users/"), 0U);
}

TEST_F(BatchingTest, anUnreadableStoreLosesNoChange) {
    addNotes(2);
    store.renameTable("e_Note", "away");
    sync();
    EXPECT_TRUE(controller->lastError());
    EXPECT_THAT(pending(), ElementsAre("n0 INSERT", "n1 INSERT"));
    EXPECT_EQ(service.requestCount("/users/"), 0U);
    store.renameTable("away", "e_Note");
    sync();
    EXPECT_THAT(keysOf(*changesRequest(0)["xactions"].asDictionary()), ElementsAre("n0", "n1"));
}

TEST_F(BatchingTest, whatAMemberOfTheHostRaisesLosesNoChange) {
    struct Case {
        std::string what;
        std::function<void()> raise;
        bool reachesTheHost;
    };
    const NS::Error unreadable(NS::PlatformErrorDomain, 77);
    for (const auto& [what, raise, reachesTheHost] : {Case{"standard", [] { throw std::runtime_error("host"); }, false},
                                                      Case{"unreadable", [&] { throw NS::StoreReadFailure(unreadable); }, false},
                                                      Case{"assertion", [] { NS::assertThat(false, "host"); }, true}}) {
        SCOPED_TRACE(what);
        controller->setSyncInProgress(false);
        notes::registerClasses();
        addNote(what);
        save();
        NS::ObjectClass::registerClass<Note>("Note").adopt(VLKSyncableObject).getter("title", [&](const NS::ManagedObject&) {
            raise();
            return NS::Value();
        });
        if (reachesTheHost) {
            EXPECT_THROW(sync(), NS::AssertionFailure);
        } else {
            sync();
            EXPECT_EQ(controller->lastError()->localizedDescription(),
                      what == "standard" ? "host" : unreadable.localizedDescription());
        }
        EXPECT_EQ(controller->batch(), nullptr);
        EXPECT_TRUE(controller->changes().contains(what));
        EXPECT_EQ(service.requestCount("/users/"), 0U);
    }
}

TEST_F(BatchingTest, chunksOfAHundred) {
    addNotes(250);
    controller->setEnableChunking(true);
    struct Expected {
        std::size_t count;
        bool more;
        NS::Value remaining;
    };
    for (const auto& [count, more, remaining] :
         {Expected{100, true, 1}, Expected{100, true, 0}, Expected{50, false, {}}, Expected{0, false, {}}}) {
        const auto request = batched();
        EXPECT_EQ(countOf(request), count);
        EXPECT_EQ(controller->batch()->size(), count);
        EXPECT_EQ(request["multi_part"], NS::Value(more));
        EXPECT_EQ(request["parts_remaining"], remaining);
    }
    controller->setEnableChunking(false);
    for (int i = 0; i < 250; ++i) fetchObject(*host, "Note", "n" + std::to_string(i))->setValueForKey("again", "title");
    save();
    const auto whole = batched();
    EXPECT_EQ(countOf(whole), 250U);
    EXPECT_EQ(whole["multi_part"], NS::Value(false));
}

TEST_F(BatchingTest, vanishedObjectsAreDroppedDeletionsAreSent) {
    addNote("kept");
    addNote("vanished");
    addNote("deleted");
    save();
    controller->disableObserving();
    host->deleteObject(fetchObject(*host, "Note", "vanished"));
    save();
    controller->enableObserving();
    host->deleteObject(fetchObject(*host, "Note", "deleted"));
    save();
    LogCapture log;
    const auto request = batched();
    EXPECT_THAT(keysOf(*request["xactions"].asDictionary()), ElementsAre("kept", "deleted"));
    EXPECT_THAT(log.entries(), ElementsAre("Removing bad transaction for: vanished"));
    EXPECT_THAT(described(*controller->batch()), ElementsAre("kept INSERT", "deleted DELETE"));
    EXPECT_THAT(pending(), IsEmpty());
}

TEST_F(BatchingTest, whatIsSentIsWhatTheStoreHolds) {
    addNote("n", {{"title", "old"}});
    save();
    controller->changes().find("n")->second->obj();  // resolved before the engine writes
    // A received change of an object that waits to be sent is neither captured nor merged.
    controller->disableObserving();
    const auto other = store.newContext();
    fetchObject(*other, "Note", "n")->setValueForKey("from elsewhere", "title");
    ASSERT_TRUE(other->save().ok());
    const auto request = batched();
    const NS::Dictionary* sent = (*request["xactions"].asDictionary())["n"].asDictionary();
    ASSERT_TRUE(sent);
    const auto json = zlibInflate(dataWithBase64EncodedString((*sent)["xaction_object"].stringOr("")).value_or(NS::Data()));
    ASSERT_TRUE(json);
    EXPECT_THAT(json->view(), testing::HasSubstr(R"("title":"from elsewhere")"));
}

TEST_F(BatchingTest, aGenericValueLeavesWithTheBatchWithoutAPlaceInIt) {
    addNotes(1);
    controller->changes().set(
        "value", VLKGenericValueTransaction::genericValueTransactionOfType("UPDATE_XACTION", "theme", "prefs", "value"));
    const auto request = batched();
    EXPECT_THAT(keysOf(*request["xactions"].asDictionary()), ElementsAre("n0"));
    EXPECT_THAT(described(*controller->batch()), ElementsAre("n0 INSERT", "value UPDATE"));
}

TEST_F(BatchingTest, anObjectWithoutAJsonFormDoesNotHoldTheOthersBack) {
    addNotes(1);
    auto broken = VLKTransaction::transactionOfType("UPDATE_XACTION", "NoSuchClass", "broken", controller->ctx());
    controller->changes().set("broken", broken);
    auto dateless = VLKTransaction::deleteTransactionForObjectOfType("Note", "dateless", controller->ctx());
    dateless->setDate(std::nullopt);
    controller->changes().set("dateless", dateless);
    LogCapture log;
    const auto request = batched();
    EXPECT_THAT(keysOf(*request["xactions"].asDictionary()), ElementsAre("n0"));
    EXPECT_THAT(log.entries(),
                testing::IsSupersetOf({"Removing bad transaction for: broken", "Removing bad transaction for: dateless"}));
    EXPECT_THAT(described(*controller->batch()), ElementsAre("n0 INSERT"));
}

TEST_F(BatchingTest, resettingPutsTheBatchBackUnderNewerChanges) {
    controller->resetBatch();
    addNotes(2);
    batched();
    EXPECT_THAT(pending(), IsEmpty());
    fetchObject(*host, "Note", "n1")->setValueForKey("newer", "title");
    addNote("n2");
    save();
    controller->resetBatch();
    EXPECT_EQ(controller->batch(), nullptr);
    EXPECT_THAT(pending(), UnorderedElementsAre("n0 INSERT", "n1 UPDATE", "n2 INSERT"));
}

TEST_F(BatchingTest, startIsAnnouncedOnlyWithSomethingToSend) {
    int announced = 0;
    const auto token = NS::NotificationCenter::defaultCenter().addObserver(VLKStartingSyncNotification, controller.get(), nullptr,
                                                                           [&](const NS::Notification&) { ++announced; });
    EXPECT_EQ(countOf(batched()), 0U);
    settle();
    EXPECT_EQ(announced, 0);
    addNotes(1);
    batched();
    EXPECT_EQ(announced, 0) << "not inside the call";
    settle();
    EXPECT_EQ(announced, 1);
    NS::NotificationCenter::defaultCenter().removeObserver(token);
}

TEST_F(BatchingTest, theSchemaCanBePosted) {
    controller->sendSchemaForContext(host);
    ASSERT_TRUE(service.awaitRequests(1, "/client_apps/org.velkor.test/schema.json"));
    const auto request = service.requests("/client_apps/").front();
    EXPECT_EQ(request.method, "POST");
    EXPECT_TRUE(request.header("Authorization"));
    EXPECT_THAT(request.body, testing::StartsWith(R"([{"name":"Notebook","attributes":[{"name":"guid","type":700})"));
    EXPECT_FALSE(controller->syncState()->contains("WS_LAST_SCHEMA_SENT"));
}

TEST_F(BatchingTest, logsItsMessages) {
    controller->setInstanceId("i");
    LogCapture log(400);
    const auto json = controller->batchCurrentChanges();
    EXPECT_TRUE(log.contains("Sending data to server: " + *json));
    VLKLog::sharedInstance().setLogLevel(399);
    log.clear();
    EXPECT_FALSE(log.contains("Sending data to server: " + *controller->batchCurrentChanges()));
    EXPECT_EQ(controller->currentOperation(), "Uploading...");
}

}  // namespace
}  // namespace velkor::test
