// Blobs of received objects: downloaded before the answer is saved.
#include <gmock/gmock.h>

#include <utility>

#include "Sync/VLKChangeWriteOperation.h"
#include "tests/Sync/ControllerTest.h"
#include "tests/Sync/FakeBlobStore.h"

namespace velkor::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class BlobDownloadsTest : public ControllerTest {
protected:
    ~BlobDownloadsTest() override { controller.reset(); }

    static std::string answer(const std::string& transactions) {
        return R"({"HIGHEST_XACTION":8,"SYNC_HASH":"IN_SYNC","new_xactions":[)" + transactions + "]}";
    }
    void receive(const std::string& transactions) { answerChanges({answer(transactions)}); }
    /// The blob of an attachment as text; "(none)" without a value or an object.
    std::string blobOf(std::string_view guid, std::string_view attribute = "content") {
        const auto object = fetchObject(*host, "Attachment", guid);
        const NS::Value value = object ? object->valueForKey(attribute) : NS::Value();
        return value.asData() ? std::string(value.asData()->view()) : "(none)";
    }
    std::int64_t highest() const { return (*controller->syncState())["HIGHEST_XACTION"].asInteger().value_or(-99); }
    void keepBlobs(const std::vector<std::string>& guids) {
        for (const std::string& guid : guids) {
            blobs.keep(guid + "/content", "content of " + guid);
            blobs.keep(guid + "/thumbnail", "");
        }
    }
    /// Starts a cycle and waits until the blob's download is on its way, its answer held.
    void syncUntilHeld(const std::string& blob) {
        const std::string step = "download " + blob, target = "/store/" + blob;
        blobs.intercept([step, held = false](const std::string& seen) mutable -> std::optional<FakeAnswer> {
            if (seen != step || std::exchange(held, true)) return std::nullopt;
            return FakeAnswer::text("late").heldUntilReleased();
        });
        const auto before = service.requestCount(target);
        controller->sendUpdates();
        ASSERT_TRUE(service.awaitRequests(before + 1, target));
        ASSERT_TRUE(runUntil([&] { return blobs.countOf(step) == 1; }));
    }

    FakeBlobStore blobs{service};
};

TEST_F(BlobDownloadsTest, blobsComeDownOneAfterTheOtherAndAreSavedWithTheirObjects) {
    keepBlobs({"a", "b"});
    std::vector<std::string> progress;
    controller->addObserverForKeyPath("currentDownloadObjectNumber", [&](NS::Observable&, const NS::Dictionary&) {
        progress.push_back(
            NS::format("%ld/%ld", controller->currentDownloadObjectNumber(), controller->totalObjectsToDownload()));
        if (controller->currentDownloadObjectNumber() < 4) {
            EXPECT_FALSE(fetchObject(*host, "Attachment", "a")) << "nothing is saved before the last blob is there";
        }
    });
    receive(receivedInsert("Attachment", "a") + "," + receivedInsert("Note", "n") + "," + receivedInsert("Attachment", "b"));
    sync();
    EXPECT_THAT(blobs.steps(), ElementsAre("read a/content", "download a/content", "read a/thumbnail", "download a/thumbnail",
                                           "read b/content", "download b/content", "read b/thumbnail", "download b/thumbnail"));
    EXPECT_EQ(service.requests("/client_apps/org.velkor.test/blobs/a/").front().header("Authorization"),
              "Basic YW5uQGV4YW1wbGUub3JnOnNlY3JldA==");
    EXPECT_EQ(blobOf("a"), "content of a");
    EXPECT_EQ(blobOf("b"), "content of b");
    EXPECT_EQ(blobOf("a", "thumbnail"), "") << "no bytes are empty data";
    EXPECT_TRUE(fetchObject(*host, "Note", "n"));
    EXPECT_EQ(highest(), 8);
    EXPECT_EQ(controller->cycleReport().blobsDown, 4);
    EXPECT_THAT(progress, testing::IsSupersetOf({"1/4", "2/4", "3/4"}));
    EXPECT_THAT(pending(), IsEmpty()) << "what came down is not sent back";
}

TEST_F(BlobDownloadsTest, afterALogoutTheCredentialsAreMissingOnes) {
    keepBlobs({"a"});
    service.script("POST", "/users/7/transactions.json",
                   {FakeAnswer::json(answer(receivedInsert("Attachment", "a"))).heldUntilReleased()});
    controller->sendUpdates();
    ASSERT_TRUE(service.awaitRequests(1, "/users/7/transactions.json"));
    controller->logout();
    service.release();
    ASSERT_TRUE(runUntil([this] { return controller->cycleReport().unlockAnswered; }));
    EXPECT_EQ(service.requests("/client_apps/org.velkor.test/blobs/a/").front().header("Authorization"),
              "Basic KG51bGwpOihudWxsKQ==");
}

TEST_F(BlobDownloadsTest, onlyObjectsThatAreThereHaveBlobsToFetch) {
    insertObject(*host, "Attachment", "deleted");
    insertObject(*host, "Attachment", "expired", {{"content", NS::Data::copyOf("old")}});
    save();
    sync();
    const auto known = blobs.steps().size();
    keepBlobs({"expired", "nowhere"});
    const auto expiry = [](std::string_view guid) {
        return NS::format(
            R"({"transaction":{"xaction_type":"EXPIRED_XACTION","xaction_object_type":"Attachment","xaction_object_guid":"%@"}})",
            guid);
    };
    receive(receivedDelete("Attachment", "deleted") + "," + expiry("expired") + "," + expiry("nowhere"));
    sync();
    EXPECT_EQ(blobs.steps().size(), known + 8);
    EXPECT_EQ(blobs.countOf("read deleted/content"), 0U);
    EXPECT_THAT(guidsOf(*host, "Attachment"), ElementsAre("expired"));
    EXPECT_EQ(blobOf("expired"), "content of expired");
    EXPECT_EQ(highest(), 8);
}

TEST_F(BlobDownloadsTest, allDownloadsShareOneCountOfFailures) {
    struct Case {
        const char* what;
        std::string refused;
        std::size_t times;
        bool saved;
        std::size_t steps, errors;
    };
    const Case cases[] = {
        {"five failures of one", "download a/content", 5, true, 8 + 10, 5},
        {"five failures of two", "download", 5, true, 8 + 10, 5},
        {"the sixth is too many", "download a/content", 6, false, 12 + 6, 6},
        {"from then on each failure drops its download", "read", FakeAnswer::none, false, 6 + 3, 9},
    };
    for (const auto& [what, refused, times, saved, steps, errors] : cases) {
        SCOPED_TRACE(what);
        keepBlobs({"a", "b"});
        blobs.refuse(refused, times);
        const auto before = blobs.steps().size();
        controller->syncState()->set("HIGHEST_XACTION", 1);
        receive(receivedInsert("Attachment", "a") + "," + receivedInsert("Attachment", "b"));
        LogCapture log;
        sync();
        EXPECT_EQ(blobs.steps().size() - before, steps);
        EXPECT_EQ(blobOf("a"), saved ? "content of a" : "(none)");
        EXPECT_EQ(highest(), saved ? 8 : 1);
        EXPECT_EQ(controller->cycleReport().blobsDown, saved ? 4 : 0);
        ASSERT_EQ(controller->lastError().has_value(), !saved);
        if (!saved) {
            EXPECT_EQ(controller->lastError()->code(), 503);
            EXPECT_EQ(log.entries().at(log.entries().size() - 2), "Too many errors. Rolling back the sync.");
        }
        const auto entries = log.entries();
        EXPECT_EQ(std::count_if(entries.begin(), entries.end(),
                                [](const auto& entry) { return entry.find(" Download error: ") != std::string::npos; }),
                  static_cast<std::ptrdiff_t>(errors));
        for (const auto* guid : {"a", "b"}) {
            if (const auto object = fetchObject(*host, "Attachment", guid)) host->deleteObject(object);
        }
        controller->disableObserving();
        save();
        controller->enableObserving();
    }
}

TEST_F(BlobDownloadsTest, whatTheUserChangesMeanwhileStays) {
    insertObject(*host, "Attachment", "a", {{"fileName", "old"}, {"content", NS::Data::copyOf("old")}});
    insertObject(*host, "Attachment", "b");
    save();
    sync();
    keepBlobs({"a", "b"});
    blobs.keep("a/content", "old");
    answerChanges({answer(receivedInsert("Attachment", "a", R"(,"fileName":"old")") + "," + receivedInsert("Attachment", "b")),
                   R"({"HIGHEST_XACTION":9,"SYNC_HASH":"IN_SYNC"})"});
    syncUntilHeld("b/thumbnail");
    fetchObject(*host, "Attachment", "a")->setValueForKey("mine", "fileName");
    fetchObject(*host, "Attachment", "a")->setValueForKey(NS::Data::copyOf("mine too"), "content");
    save();
    service.release();
    ASSERT_TRUE(runUntil([this] { return highest() == 9; }));
    EXPECT_EQ(fetchObject(*host, "Attachment", "a")->valueForKey("fileName"), NS::Value("mine"));
    EXPECT_EQ(blobOf("a"), "mine too");
    EXPECT_EQ(blobOf("b"), "content of b");
    EXPECT_EQ(blobs.blob("a/content"), "mine too");
}

TEST_F(BlobDownloadsTest, aListingsAnswerBringsItsBlobsToo) {
    keepBlobs({"a", "b"});
    for (const bool fails : {true, false}) {
        answerChanges({R"({"HIGHEST_XACTION":5,"SYNC_HASH":"OUT_OF_SYNC"})"});
        service.script("POST", "/users/7/known_objects/sync.json", {FakeAnswer::json(answer(receivedInsert("Attachment", "a")))});
        blobs.refuse("read", fails ? FakeAnswer::none : 0);
        sync();
        EXPECT_EQ(blobOf("a"), fails ? "(none)" : "content of a");
        EXPECT_EQ(highest(), fails ? 5 : 8);
        EXPECT_FALSE(controller->lastError());
        EXPECT_EQ(service.requestCount("/transactions/rollback.json"), 0U);
        EXPECT_EQ(controller->cycleReport().blobsDown, fails ? 0 : 2);
    }
}

TEST_F(BlobDownloadsTest, aCancelledWriteGivesUp) {
    keepBlobs({"a"});
    receive(receivedInsert("Attachment", "a"));
    syncUntilHeld("a/content");
    controller->saveQueue().cancelAllOperations();
    ASSERT_TRUE(runUntil([this] { return controller->cycleReport().unlockAnswered; }));
    EXPECT_TRUE(controller->lastError());
    EXPECT_EQ(highest(), -1);
    service.release();
    settle();
    EXPECT_EQ(blobOf("a"), "(none)");
    sync();
    EXPECT_EQ(blobOf("a"), "content of a");
}

TEST_F(BlobDownloadsTest, teardownDoesNotWaitForADownload) {
    keepBlobs({"a"});
    receive(receivedInsert("Attachment", "a"));
    syncUntilHeld("a/content");
    controller.reset();
    service.release();
    settle();
    EXPECT_EQ(blobOf("a"), "(none)");
    EXPECT_EQ(blobs.steps().size(), 2U);
}

TEST_F(BlobDownloadsTest, logsItsMessages) {
    keepBlobs({"a"});
    const auto receiveWithFailures = [this](std::size_t failures) {
        return [this, failures] {
            receive(receivedInsert("Attachment", "a"));
            blobs.refuse("read", failures);
            sync();
        };
    };
    const std::string error =
        "a Download error: " + NS::Error(NS::NetworkErrorDomain, 503, {{"error", "refused"}}).localizedDescription();
    checkLogCases({
        {"scheduling",
         300,
         receiveWithFailures(0),
         {"Attempting to download blobs...", "Transaction for object a has blobs.", "Found blob attribute: content",
          "Found blob attribute: thumbnail", "Finished processing transactions"}},
        {"a failure", 100, receiveWithFailures(1), {error}},
        {"too many", 100, receiveWithFailures(FakeAnswer::none), {error, error, "Too many errors. Rolling back the sync."}},
    });
}

}  // namespace
}  // namespace velkor::test
