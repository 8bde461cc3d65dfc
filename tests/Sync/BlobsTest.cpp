// The blob pipeline: a batch's blobs go up, or go, between the service's answer and its handling.
#include <gmock/gmock.h>

#include "PelmoLib/VLKSyncableObject.h"
#include "Sync/VLKS3Deleter.h"
#include "platform/concurrency/NotificationCenter.h"
#include "tests/Sync/ControllerTest.h"
#include "tests/Sync/FakeBlobStore.h"

namespace velkor::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::string_view changesEndpoint = "/users/7/transactions.json";

class BlobsTest : public ControllerTest {
protected:
    ~BlobsTest() override { controller.reset(); }

    ObjectPointer addAttachment(std::string_view guid, std::string_view content) {
        return insertObject(*host, "Attachment", guid, {{"content", NS::Data::copyOf(content)}, {"thumbnail", NS::Data()}});
    }
    /// An attachment whose insert is pending.
    void pendAttachment(std::string_view guid = "a", std::string_view content = "bytes") {
        addAttachment(guid, content);
        save();
    }
    /// Counts how often a cycle ended.
    void countEnds() {
        endObserver = NS::NotificationCenter::defaultCenter().addObserver(VLKEndedSyncNotification, nullptr, nullptr,
                                                                          [this](const NS::Notification&) { ++ends; });
    }
    std::int64_t highest() const { return (*controller->syncState())["HIGHEST_XACTION"].asInteger().value_or(-99); }
    std::size_t rollbacks() const { return service.requestCount("/transactions/rollback.json"); }
    std::size_t unlocks() const { return service.requestCount("/client/org.velkor.test/"); }

    FakeBlobStore blobs{service};
    NS::NotificationCenter::Token endObserver;
    int ends = 0;
};

TEST_F(BlobsTest, blobsGoUpOneAfterTheOtherBeforeTheAnswerIsHandled) {
    pendAttachment("a", "picture");
    addNote("n");
    save();
    answerChanges({R"({"HIGHEST_XACTION":8,"SYNC_HASH":"IN_SYNC","new_xactions":[)" + receivedInsert("Note", "r") + "]}"});
    std::vector<std::string> told;
    controller->addObserverForKeyPath("currentOperation", [&](NS::Observable&, const NS::Dictionary&) {
        if (controller->currentOperation().ends_with("(--/--)...")) {
            told.push_back(controller->currentOperation());
            EXPECT_EQ(highest(), -1);
        }
    });
    sync();
    EXPECT_THAT(blobs.steps(), ElementsAre("write a/content", "upload a/content", "wrote a/content", "write a/thumbnail",
                                           "upload a/thumbnail", "wrote a/thumbnail"));
    EXPECT_EQ(blobs.blob("a/content"), "picture");
    EXPECT_EQ(blobs.blob("a/thumbnail"), "") << "a blob without a value has no bytes";
    EXPECT_THAT(told, ElementsAre("Uploading object 1/2 (--/--)...", "Uploading object 2/2 (--/--)..."));
    EXPECT_EQ(service.requests("/client_apps/org.velkor.test/blobs/a/content/write.json").front().header("Authorization"),
              "Basic KG51bGwpOihudWxsKQ==");
    EXPECT_EQ(controller->cycleReport().blobsUp, 2);
    EXPECT_EQ(controller->cycleReport().sent, 2);
    EXPECT_EQ(highest(), 8);
    EXPECT_TRUE(fetchObject(*host, "Note", "r"));
    EXPECT_FALSE(controller->latestSyncResult());
    EXPECT_THAT(pending(), IsEmpty());
    sync();
    EXPECT_EQ(blobs.steps().size(), 6U) << "what has no blobs is answered at once";
}

TEST_F(BlobsTest, aDeletionTakesItsBlobsAlong) {
    pendAttachment();
    sync();
    host->deleteObject(fetchObject(*host, "Attachment", "a"));
    save();
    sync();
    const auto steps = blobs.steps();
    EXPECT_THAT(std::vector<std::string>(steps.begin() + 6, steps.end()),
                ElementsAre("delete a/content", "remove a/content", "delete a/thumbnail", "remove a/thumbnail"));
    EXPECT_FALSE(blobs.blob("a/content"));
    EXPECT_EQ(controller->cycleReport().blobsUp, 0);
}

TEST_F(BlobsTest, whatIsUploadedIsWhatTheStoreHolds) {
    pendAttachment("a", "old");
    controller->disableObserving();
    fetchObject(*host, "Attachment", "a")->setValueForKey(NS::Data::copyOf("new"), "content");
    save();
    sync();
    EXPECT_EQ(blobs.blob("a/content"), "new");
}

TEST_F(BlobsTest, whatIsNotSentIsNotUploaded) {
    pendAttachment("gone");
    pendAttachment("unwritable");
    controller->disableObserving();
    host->deleteObject(fetchObject(*host, "Attachment", "gone"));
    save();
    NS::ObjectClass::registerClass<Attachment>("Attachment")
        .adopt(VLKSyncableObject)
        .answers("attributesToNotSerialize", [](const NS::ManagedObject&) -> NS::Value {
            throw NS::Exception(NS::InvalidArgumentException, "no JSON of this");
        });
    LogCapture log;
    sync();
    EXPECT_THAT(log.entries(), ElementsAre("Removing bad transaction for: gone", "Removing bad transaction for: unwritable"));
    EXPECT_THAT(keysOf(*changesRequest(0)["xactions"].asDictionary()), IsEmpty());
    EXPECT_THAT(blobs.steps(), IsEmpty());
}

TEST_F(BlobsTest, pagesAreFetchedAfterTheUploads) {
    pendAttachment();
    answerChanges({R"({"HIGHEST_XACTION":9,"SYNC_HASH":"IN_SYNC","batched_download_identifier":"k"})"});
    service.script("GET", "/users/7/batchdownload.json",
                   {FakeAnswer::json(R"({"new_xactions":[)" + receivedInsert("Note", "paged") + "]}"), FakeAnswer::json("{}")});
    sync();
    const auto lines = traffic();
    const auto place = [&](std::string_view part) {
        const auto found =
            std::find_if(lines.begin(), lines.end(), [&](const auto& line) { return line.find(part) != std::string::npos; });
        return found - lines.begin();
    };
    EXPECT_LT(place("thumbnail/wrote.json"), place("batchdownload.json?page=1"));
    EXPECT_TRUE(fetchObject(*host, "Note", "paged"));
    EXPECT_EQ(highest(), 9);
    EXPECT_EQ(controller->cycleReport().sent, 1);
}

TEST_F(BlobsTest, tenFailuresInARowAreForgiven) {
    pendAttachment();
    blobs.refuse("upload a/content", 10);
    sync();
    EXPECT_EQ(rollbacks(), 0U);
    EXPECT_FALSE(controller->lastError());
    EXPECT_EQ(controller->failedBlobUploadCount(), 0);
    EXPECT_EQ(blobs.countOf("write a/content"), 11U);
    EXPECT_EQ(blobs.blob("a/content"), "bytes");
    EXPECT_THAT(pending(), IsEmpty());
}

TEST_F(BlobsTest, theEleventhFailureEndsTheCycleOnce) {
    countEnds();
    for (const std::string step : {"write", "upload", "wrote"}) {
        SCOPED_TRACE(step);
        pendAttachment(step);
        answerChanges({R"({"HIGHEST_XACTION":8,"SYNC_HASH":"IN_SYNC","new_xactions":[)" + receivedInsert("Tag", step) + "]}"});
        blobs.refuse(step, FakeAnswer::none);
        const auto before = std::pair(unlocks(), rollbacks());
        ends = 0;
        bool continued = false;
        LogCapture log;
        controller->setContinuation([&] { continued = true; });
        controller->sendUpdates();
        ASSERT_TRUE(runUntil([this] { return controller->cycleReport().unlockAnswered; }));
        settle();
        EXPECT_TRUE(continued);
        EXPECT_EQ(controller->lastError()->code(), 503);
        EXPECT_EQ(std::pair(unlocks(), rollbacks()), std::pair(before.first + 1, before.second + 1));
        EXPECT_EQ(ends, 1);
        EXPECT_TRUE(controller->pendingBlobUploads().empty());
        EXPECT_FALSE(controller->latestSyncResult());
        EXPECT_THAT(pending(), ElementsAre(step + " INSERT"));
        EXPECT_EQ(highest(), -1) << "nothing of the answer is taken in";
        EXPECT_FALSE(fetchObject(*host, "Tag", step));
        const auto entries = log.entries();
        EXPECT_GE(std::count(entries.begin(), entries.end(), "Blob upload failed for: " + step), 11);
        EXPECT_THAT(entries, Contains(NS::format("VLK Error: %@ while sending changes.", *controller->lastError())));

        blobs.intercept(nullptr);
        sync();
        EXPECT_EQ(blobs.blob(step + "/content"), "bytes");
        EXPECT_TRUE(fetchObject(*host, "Tag", step));
        EXPECT_THAT(pending(), IsEmpty());
        controller->syncState()->set("HIGHEST_XACTION", -1);
    }
}

TEST_F(BlobsTest, untilTheRollbackIsAnsweredTheTransferIsTriedAndReportedAgain) {
    countEnds();
    service.script("POST", "/transactions/rollback.json", {FakeAnswer::json("{}").heldUntilReleased()});
    for (const bool succeedsAtLast : {false, true}) {
        SCOPED_TRACE(succeedsAtLast);
        const std::string guid = succeedsAtLast ? "b" : "a";
        pendAttachment(guid);
        blobs.refuse("write", succeedsAtLast ? 13 : FakeAnswer::none);
        const auto before = std::pair(unlocks(), rollbacks());
        ends = 0;
        LogCapture log;
        controller->sendUpdates();
        ASSERT_TRUE(runUntil([&] {
            return succeedsAtLast ? controller->pendingBlobUploads().empty() && blobs.countOf("wrote b/thumbnail") == 1
                                  : blobs.countOf("write a/content") >= 14;
        }));
        settle();
        const auto entries = log.entries();
        const auto reported = std::count_if(entries.begin(), entries.end(), [](const auto& entry) {
            return entry.starts_with("VLK Error: ") && entry.ends_with(" while sending changes.");
        });
        EXPECT_GE(reported, 3);
        EXPECT_EQ(ends, 0);
        service.release();
        ASSERT_TRUE(runUntil([this] { return controller->cycleReport().unlockAnswered; }));
        const auto tries = blobs.steps().size();
        settle();
        EXPECT_EQ(std::pair(unlocks(), rollbacks()), std::pair(before.first + 1, before.second + 1));
        EXPECT_EQ(ends, 1);
        EXPECT_THAT(pending(), ElementsAre(guid + " INSERT")) << "a request that was rolled back has to be sent again";
        EXPECT_EQ(highest(), -1);
        EXPECT_LE(blobs.steps().size(), tries + 1) << "nothing is tried once the queue is empty";
        controller->dropPendingTransactions();
        blobs.intercept(nullptr);
    }
}

TEST_F(BlobsTest, aFailedRequestDropsItsTransfers) {
    pendAttachment();
    service.script("POST", changesEndpoint, {FakeAnswer::json("{}", 500)});
    sync();
    EXPECT_TRUE(controller->pendingBlobUploads().empty());
    // A request that ends before it is sent: the service does not know the user any more.
    service.script("GET", "/client/v1.5/", {FakeAnswer::json("{}")});
    service.script("GET", "/transactions/verify.json", {FakeAnswer::json("{}", 403)});
    sync();
    EXPECT_TRUE(controller->pendingBlobUploads().empty());
    EXPECT_THAT(blobs.steps(), IsEmpty());
    scriptService();
    sync();
    EXPECT_EQ(blobs.steps().size(), 6U) << "each blob once";
}

TEST_F(BlobsTest, aTransferOfACycleThatFailedReachesNobodyAnyMore) {
    pendAttachment("a", "old");
    blobs.intercept([](const std::string& step) -> std::optional<FakeAnswer> {
        if (step != "upload a/content") return std::nullopt;
        return FakeAnswer::text("", 204).heldUntilReleased();
    });
    controller->sendUpdates();
    ASSERT_TRUE(service.awaitRequests(1, "/store/"));
    controller->handleFailedChangesCommandWithError(NS::Error(NS::VelkorErrorDomain, 9));
    ASSERT_TRUE(runUntil([this] { return controller->cycleReport().unlockAnswered; }));
    service.release();
    blobs.intercept(nullptr);
    const auto known = blobs.steps().size();
    fetchObject(*host, "Attachment", "a")->setValueForKey(NS::Data::copyOf("new"), "content");
    save();
    sync();
    const auto steps = blobs.steps();
    EXPECT_THAT(std::vector<std::string>(steps.begin() + static_cast<std::ptrdiff_t>(known), steps.end()),
                ElementsAre("write a/content", "upload a/content", "wrote a/content", "write a/thumbnail", "upload a/thumbnail",
                            "wrote a/thumbnail"));
    EXPECT_EQ(blobs.blob("a/content"), "new");
}

TEST_F(BlobsTest, anAnswerStartsTheTransfersOfItsOwnBatchOnly) {
    service.script("POST", changesEndpoint,
                   {FakeAnswer::json(R"({"SYNC_HASH":"IN_SYNC"})").heldUntilReleased(),
                    FakeAnswer::json(R"({"SYNC_HASH":"IN_SYNC"})").heldUntilReleased()});
    controller->sendUpdates();
    ASSERT_TRUE(service.awaitRequests(1, changesEndpoint));
    // The unlock of a login lets a second cycle begin beside the one that waits for its answer.
    controller->loginWithEmailAddress(*controller->emailAddress(), *controller->userPassword(), nullptr);
    ASSERT_TRUE(runUntil([this] { return !controller->syncInProgress(); }));
    pendAttachment();
    controller->sendUpdates();
    ASSERT_TRUE(service.awaitRequests(2, changesEndpoint));
    service.release();
    ASSERT_TRUE(runUntil([this] { return controller->lastSync().has_value(); }));
    EXPECT_THAT(blobs.steps(), IsEmpty());
    service.release();
    ASSERT_TRUE(runUntil([this] { return controller->cycleReport().sent == 1; }));
    EXPECT_EQ(blobs.steps().size(), 6U);
}

TEST_F(BlobsTest, afterTeardownNoTransferTellsAnything) {
    pendAttachment();
    blobs.intercept([](const std::string&) { return FakeAnswer::json("{}").heldUntilReleased(); });
    bool told = false;
    controller->sendUpdates();
    ASSERT_TRUE(service.awaitRequests(1, "/client_apps/org.velkor.test/"));
    controller->deleteAllBlobsFromServerWithCallback([&](bool, const std::optional<NS::Error>&) { told = true; });
    ASSERT_TRUE(service.awaitRequests(2, "/client_apps/org.velkor.test/"));
    controller.reset();
    service.release(2);
    settle();
    EXPECT_FALSE(told);
    EXPECT_EQ(blobs.steps().size(), 2U);
}

// --- Deletion of all blobs ---

TEST_F(BlobsTest, blobNamesAreThoseOfEverySyncableObject) {
    addNote("n");
    addAttachment("a", "1");
    addAttachment("b", "2");
    insertObject(*host, "Attachment", "");
    controller->disableObserving();
    save();
    const NS::Array names{"content", "thumbnail"};
    EXPECT_EQ(controller->blobNamesForSyncableObjects(), (NS::Dictionary{{"a", names}, {"b", names}}));
    NS::ObjectClass::registerClass<Attachment>("Attachment")
        .adopt(VLKSyncableObject)
        .getter("guid",
                [](const NS::ManagedObject& object) { return NS::Value("x" + object.primitiveValue("guid").stringOr("")); });
    EXPECT_EQ(keysOf(controller->blobNamesForSyncableObjects()), (std::vector<std::string>{"xa", "xb", "x"}));
}

TEST_F(BlobsTest, allBlobsAreDeletedFromTheEndOfTheListUntilOneFails) {
    std::vector<std::string> told;
    const auto hear = [&](bool success, const std::optional<NS::Error>& error) {
        told.push_back(success ? "yes" : NS::format("no %@", error->code()));
    };
    EXPECT_THAT(controller->deleteAllBlobsFromServerWithCallback(hear), IsEmpty());
    EXPECT_THAT(told, ElementsAre("yes")) << "at once";
    EXPECT_THAT(controller->deleteAllBlobsFromServerWithCallback(nullptr), IsEmpty());
    addAttachment("a", "1");
    addAttachment("b", "2");
    save();
    const auto deleters = controller->deleteAllBlobsFromServerWithCallback(hear);
    ASSERT_EQ(deleters.size(), 4U);
    EXPECT_EQ(deleters.front()->guid() + "/" + deleters.front()->colname(), "a/content");
    ASSERT_TRUE(runUntil([&] { return told.size() == 2; }));
    EXPECT_EQ(told.back(), "yes");
    EXPECT_THAT(blobs.steps(), ElementsAre("delete b/thumbnail", "remove b/thumbnail", "delete b/content", "remove b/content",
                                           "delete a/thumbnail", "remove a/thumbnail", "delete a/content", "remove a/content"));
    blobs.refuse("remove b/content", 1);
    controller->deleteAllBlobsFromServerWithCallback(hear);
    ASSERT_TRUE(runUntil([&] { return told.size() == 3; }));
    settle();
    EXPECT_EQ(told.back(), "no 503");
    EXPECT_EQ(blobs.steps().size(), 12U) << "the rest is left";
    controller->deleteAllBlobsFromServerWithCallback(nullptr);
    ASSERT_TRUE(runUntil([&] { return blobs.countOf("remove a/content") == 2; }));
}

TEST_F(BlobsTest, logsItsMessages) {
    const auto upload = [this](std::size_t failures) {
        return [this, failures] {
            controller->dropPendingTransactions();
            controller->addChangesOfType("UPDATE_XACTION", controller->objectsForGuids({"a"}));
            blobs.refuse("write", failures);
            sync();
        };
    };
    pendAttachment();
    checkLogCases({
        {"queueing",
         300,
         upload(0),
         {"(VLKTransaction) Checking if object has blobs...", "(VLKSyncController) Adding blob upload operation..."}},
        {"a failure", 100, upload(1), {"Blob upload failed for: a"}},
    });
}

}  // namespace
}  // namespace velkor::test
