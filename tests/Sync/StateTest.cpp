// Lifecycle, configuration and persisted state of the sync controller.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <atomic>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <future>
#include <mutex>
#include <thread>

#include "PelmoLib/JSONWebCommand.h"
#include "PelmoLib/VLKMocCreator.h"
#include "PelmoLib/encodings/NSData+Digests.h"
#include "Sync/VLKByteCount.h"
#include "Sync/VLKSavePacing.h"
#include "platform/concurrency/NotificationCenter.h"
#include "platform/concurrency/RunLoop.h"
#include "platform/persistence/Bundle.h"
#include "platform/persistence/PropertyList.h"
#include "platform/persistence/UserDefaults.h"
#include "tests/Sync/ControllerTest.h"
#include "tests/support/ManualTime.h"

namespace velkor::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class StateTest : public ControllerTest {
protected:
    static NS::UserDefaults& defaults() { return NS::UserDefaults::standardUserDefaults(); }
    NS::Dictionary stateFile() const {
        auto state = NS::dictionaryWithContentsOfFile(statePath());
        EXPECT_TRUE(state.ok());
        return state.ok() ? state.value() : NS::Dictionary();
    }
    void writeStateFile(const std::string& bytes) const { std::ofstream(statePath()) << bytes; }
    ino_t inode() const {
        struct stat info {};
        ::stat(statePath().c_str(), &info);
        return info.st_ino;
    }
};

TEST_F(StateTest, beginsAsAFreshInstallation) {
    NS::Bundle::mainBundle().setInfoDictionary({{"CFBundleIdentifier", "org.example.host"}});
    TestController fresh("http://127.0.0.1:1", [this] { return store.newContext(); });
    EXPECT_EQ(fresh.appId(), "org.example.host");
    EXPECT_EQ(fresh.serverUrl(), "http://127.0.0.1:1");
    EXPECT_EQ(fresh.latestModelVersion(), "1.0");
    EXPECT_EQ(fresh.instanceId()->size(), 36U);
    EXPECT_EQ((*fresh.syncState())["HIGHEST_XACTION"], NS::Value(-1));
    EXPECT_TRUE(fresh.wantsToSleep());
    EXPECT_TRUE(fresh.observing());
    EXPECT_FALSE(fresh.enableChunking());
    EXPECT_FALSE(fresh.syncInProgress());
    EXPECT_EQ(fresh.refreshInterval(), 60);
    EXPECT_EQ(fresh.requestTimeout(), 60);
    EXPECT_EQ(fresh.saveQueue().maxConcurrentOperationCount(), 1);
    EXPECT_EQ(fresh.readQueue().maxConcurrentOperationCount(), NS::OperationQueue::defaultWidth);
    EXPECT_EQ(fresh.changes().size(), 0U);
    EXPECT_EQ(fresh.batch(), nullptr);
    EXPECT_EQ(VLKMocCreator::sharedInstance()->ctx(), fresh.ctx());
}

TEST_F(StateTest, thereIsOneGlobalController) {
    controller.reset();
    const auto reasonOf = [](const std::function<void()>& action) -> std::string {
        try {
            action();
        } catch (const NS::Exception& exception) {
            return exception.name() == "VLKSyncControllerAlreadyInitialized" ? "again: " + exception.reason()
                                                                             : exception.reason();
        }
        return "nothing raised";
    };
    EXPECT_EQ(reasonOf([] { VLKSyncController::globalInstance(); }),
              "SyncController has not been initialized.  Call -globalInstanceWithContextCreator first!");
    EXPECT_EQ(reasonOf([] { TestController("http://127.0.0.1:1", nullptr); }),
              "The SyncController needs a context when it is created");
    const auto make = [this] {
        return VLKSyncController::globalInstanceWithServerURL(service.url(), [this] { return store.newContext(); });
    };
    VLKSyncController* global = make();
    EXPECT_EQ(
        reasonOf([&] { make(); }),
        "again: The SyncController has already been initialized and may not be initialized again. Use +globalInstance to get the "
        "current instance.");
    EXPECT_EQ(VLKSyncController::globalInstance(), global);
}

TEST_F(StateTest, pendingChangesAndIdentitySurviveInTheStateFile) {
    controller->load();
    addNote("a", {{"title", "first"}});
    addNote("b");
    save();
    host->deleteObject(fetchObject(*host, "Note", "b"));
    save();
    controller->setLastSync(NS::Date(1000));
    const auto identity = controller->instanceId();
    (*controller->syncState()).set("host.key", "kept");
    controller->save();
    EXPECT_THAT(keysOf(stateFile()),
                UnorderedElementsAre("HIGHEST_XACTION", "host.key", "TRANSACTION_QUEUE", "LAST_SYNC", "INSTANCE_IDENTIFIER"));

    controller.reset();
    controller = newController();
    EXPECT_NE(controller->instanceId(), identity);
    bool told = false;
    controller->addObserverForKeyPath("lastSync", [&](NS::Observable&, const NS::Dictionary&) { told = true; });
    controller->load();
    EXPECT_TRUE(told);
    EXPECT_EQ(controller->instanceId(), identity);
    EXPECT_EQ(controller->lastSync(), NS::Date(1000));
    EXPECT_EQ((*controller->syncState())["host.key"], NS::Value("kept"));
    EXPECT_THAT(pending(), ElementsAre("a INSERT", "b DELETE"));
    EXPECT_EQ(controller->changes().find("a")->second->obj()->valueForKey("title"), NS::Value("first"));
}

TEST_F(StateTest, withoutAStateFileUserDefaultsKeepIt) {
    controller->setStateSavePath(std::nullopt);
    addNote("a");
    save();
    controller->save();
    EXPECT_TRUE(defaults().objectForKey("VELKOR_SYNC_STATE").asDictionary());
    controller->dropPendingTransactions();
    controller->load();
    EXPECT_THAT(pending(), ElementsAre("a INSERT"));
}

TEST_F(StateTest, aChangeCapturedBeforeLoadingWins) {
    addNote("a");
    addNote("b");
    save();
    controller->save();
    controller->dropPendingTransactions();
    fetchObject(*host, "Note", "a")->setValueForKey("newer", "title");
    save();
    controller->load();
    EXPECT_THAT(pending(), ElementsAre("a UPDATE", "b INSERT"));
}

TEST_F(StateTest, legacyDefaultsAreTakenOverOnce) {
    (void)defaults().setObject(41, "HIGHEST_XACTION");
    (void)defaults().setObject("legacy-identity", "INSTANCE_IDENTIFIER");
    writeStateFile(NS::propertyListXML(NS::Dictionary{{"HIGHEST_XACTION", 99}}).value());
    const auto identity = controller->instanceId();
    controller->loadSyncState();
    EXPECT_EQ(*controller->syncState(), (NS::Dictionary{{"HIGHEST_XACTION", 41}, {"INSTANCE_IDENTIFIER", "legacy-identity"}}));
    EXPECT_EQ(controller->instanceId(), identity);
    EXPECT_FALSE(defaults().objectForKey("HIGHEST_XACTION"));
    EXPECT_FALSE(defaults().objectForKey("INSTANCE_IDENTIFIER"));
    controller->loadSyncState();
    EXPECT_EQ((*controller->syncState())["HIGHEST_XACTION"], NS::Value(99));
}

TEST_F(StateTest, damagedStateIsNeitherUsedNorOverwritten) {
    writeStateFile("no property list");
    controller->load();
    EXPECT_EQ(controller->syncState(), nullptr);
    controller->save();
    std::string left;
    std::getline(std::ifstream(statePath()), left);
    EXPECT_EQ(left, "no property list");

    std::filesystem::remove(statePath());
    addNote("a");
    save();
    controller->load();
    controller->syncState()->set("TRANSACTION_QUEUE", NS::Data::copyOf("no archive"));
    controller->saveSyncState();
    controller->load();
    EXPECT_THAT(pending(), ElementsAre("a INSERT"));
}

TEST_F(StateTest, whatCannotBeReachedIsNotTakenForAbsent) {
    std::filesystem::create_symlink("SyncState.plist", statePath());  // leads to itself
    controller->load();
    EXPECT_EQ(controller->syncState(), nullptr);
    controller->save();
    EXPECT_TRUE(std::filesystem::is_symlink(statePath()));
}

TEST_F(StateTest, whatWasTakenOverFromLegacyDefaultsIsKeptWithTheFirstStateFile) {
    controller.reset();
    (void)defaults().setObject(41, "HIGHEST_XACTION");
    (void)defaults().setObject("legacy-identity", "INSTANCE_IDENTIFIER");
    controller = newController();
    controller->load();
    EXPECT_EQ(controller->instanceId(), "legacy-identity");
    controller->save();
    EXPECT_EQ(stateFile()["HIGHEST_XACTION"], NS::Value(41));
    std::filesystem::remove(statePath());
    controller->load();
    EXPECT_EQ((*controller->syncState())["HIGHEST_XACTION"], NS::Value(-1)) << "once kept, the file alone counts";
}

/// Digests something once the teardown cancels it.
class HashesWhenCancelled : public NS::Operation {
public:
    void main() override {
        started.set_value();
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return isCancelled(); });
        (void)md5Hash({});
        std::fputs("hashed", stderr);
    }
    void cancel() override {
        const std::lock_guard lock(m_mutex);
        NS::Operation::cancel();
        m_changed.notify_all();
    }

    std::promise<void> started;

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
};

TEST(TeardownTest, hashingAtTheProcessesEndStillWorks) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto host = [] {
        const NotesStore store;
        auto* controller =
            VLKSyncController::globalInstanceWithServerURL("http://127.0.0.1:1", [&] { return store.newContext(); });
        (void)sha256Hash({});
        const auto operation = std::make_shared<HashesWhenCancelled>();
        controller->hashingQueue().addOperation(operation);
        operation->started.get_future().wait();
        std::exit(0);
    };
    EXPECT_EXIT(host(), testing::ExitedWithCode(0), "hashed");
}

TEST_F(StateTest, anUnchangedStateIsNotWrittenAgain) {
    controller->load();
    controller->save();
    const auto first = inode();
    controller->save();
    controller->saveSyncState();
    EXPECT_EQ(inode(), first);
    controller->syncState()->set("HIGHEST_XACTION", 6);
    controller->saveSyncState();
    EXPECT_EQ(stateFile()["HIGHEST_XACTION"], NS::Value(6));
    // Somebody else's file of the same path is not mistaken for ours.
    writeStateFile("no property list");
    controller->saveSyncState();
    EXPECT_EQ(stateFile()["HIGHEST_XACTION"], NS::Value(6));
}

TEST_F(StateTest, timerFollowsItsSwitches) {
    ManualTime time;
    controller->setEmailAddress(std::nullopt);  // cycles stop after the lock
    const auto locks = [this] { return service.requestCount("/client/v1.5/"); };
    controller->resetTimer();
    EXPECT_EQ(time.untilNextTimer(), std::nullopt);
    controller->start();
    EXPECT_EQ(controller->pollTimer()->timeInterval(), 60);
    const auto first = controller->pollTimer();
    controller->setRefreshInterval(5);
    controller->start();
    EXPECT_FALSE(first->isValid());
    bool open = false;
    controller->setCycleGuard([&open] { return open; });
    time.advance(5);
    EXPECT_FALSE(controller->syncInProgress());
    open = true;
    time.advance(5);
    EXPECT_TRUE(controller->syncInProgress());
    EXPECT_TRUE(service.awaitRequests(1, "/client/v1.5/"));
    EXPECT_EQ(locks(), 1U);
    controller->cancel();
    controller->cancel();
    EXPECT_EQ(controller->pollTimer(), nullptr);
    controller->setWantsToSleep(false);
    for (const double seconds : {0.0, -5.0, std::nan("")}) {
        controller->resetTimerWithInterval(seconds);
        EXPECT_EQ(controller->pollTimer()->timeInterval(), 1);
    }
    controller->cancel();
}

TEST_F(StateTest, statusCanBeObserved) {
    std::vector<std::string> seen;
    const auto follow = [&](const std::string& key) {
        controller->addObserverForKeyPath(key, [&seen, key](NS::Observable& object, const NS::Dictionary&) {
            seen.push_back(key + "=" + object.valueForKey(key).description());
        });
    };
    follow("currentOperation");
    follow("percentSyncComplete");
    follow("emailAddress");
    controller->updateSyncStatusWithMessage("Half", 0.5F);
    controller->updateSyncStatusWithMessage("Still half", -1.0F);
    controller->updateSyncStatusWithMessage("Not a number", std::nanf(""));
    controller->setSyncStatusMessageWithFormat("%d of %@", 3, "four");
    controller->setEmailAddress("bob@example.org");
    EXPECT_THAT(seen, ElementsAre("currentOperation=Half", "percentSyncComplete=0.5", "currentOperation=Still half",
                                  "currentOperation=Not a number", "currentOperation=3 of four", "emailAddress=bob@example.org"));
}

TEST_F(StateTest, transfersReportTheirProgress) {
    controller->setTotalObjectsToUpload(4);
    controller->setCurrentUploadObjectNumber(0);
    NS::NotificationCenter::defaultCenter().post("VLKDataUploaderDidUploadData", nullptr,
                                                 {{"VLKBytesUploaded", 512}, {"VLKTotalBytes", 1536 * 1024}});
    settle();
    EXPECT_EQ(controller->currentOperation(), "Uploading object 1/4 (512 bytes/1.5 MB)...");
    controller->setTotalObjectsToDownload(9);
    controller->setCurrentDownloadObjectNumber(8);
    NS::NotificationCenter::defaultCenter().post("VLKDataDownloaderDidDownloadData", nullptr,
                                                 {{"VLKBytesDownloaded", 0}, {"VLKTotalBytes", 1024}});
    settle();
    EXPECT_EQ(controller->currentOperation(), "Downloading object 9/9 (Zero KB/1 KB)...");
}

TEST(ByteCountTest, countsInMultiplesOf1024) {
    const std::vector<std::pair<std::int64_t, std::string>> cases = {{0, "Zero KB"},
                                                                     {1, "1 byte"},
                                                                     {1023, "1023 bytes"},
                                                                     {1024, "1 KB"},
                                                                     {14 * 1024 + 100, "14 KB"},
                                                                     {1024 * 1024 - 1, "1 MB"},
                                                                     {1536 * 1024, "1.5 MB"},
                                                                     {std::int64_t{9} << 28, "2.25 GB"},
                                                                     {std::int64_t{1} << 62, "4 EB"}};
    for (const auto& [bytes, text] : cases) EXPECT_EQ(textForByteCount(bytes), text);
}

TEST(SavePacingTest, aCycleOfManyChunksWritesTheQueueAFewTimes) {
    VLKSavePacing pacing;
    EXPECT_FALSE(pacing.wait(99'900)) << "what was captured and never kept is kept at once";
    pacing.saved(99'900);
    std::size_t written = 0;
    for (std::size_t pending = 99'800; pending > 0; pending -= 100) {
        if (pacing.wait(pending)) continue;
        pacing.saved(pending);
        written += pending;
    }
    EXPECT_LT(written, 500'000U);
    pacing.saved(5000);
    EXPECT_TRUE(pacing.wait(4900));
    pacing.changeFiled();
    EXPECT_FALSE(pacing.wait(4800)) << "a new change does not wait";
    EXPECT_FALSE(pacing.wait(0)) << "an emptied queue is kept at once";
}

TEST_F(StateTest, nothingIsCalledAfterTeardown) {
    std::vector<std::string> called;
    service.script("", "/", {FakeAnswer::hang()});
    addNote("a");
    ASSERT_TRUE(host->save().ok());  // its block stays queued
    controller->addObserverForKeyPath("currentOperation", [](NS::Observable&, const NS::Dictionary&) {});
    controller->loginWithEmailAddress("a", "b", [&](bool, const std::optional<NS::Error>&) { called.push_back("login"); });
    controller->rollbackWithCompletionHandler([&](bool, const std::optional<NS::Error>&) { called.push_back("rollback"); });
    controller->forceSyncWithContinuation([&] { called.push_back("continuation"); });
    controller->start();
    ASSERT_TRUE(service.awaitRequests(2));
    std::atomic<bool> asking = false, answered = true;
    controller->hashingQueue().addOperation([&] {
        asking = true;
        answered = !controller->guidsOfGenericValues().empty();
    });
    while (!asking) std::this_thread::yield();
    controller->syncEnded();
    {
        LogCapture log(200);
        controller.reset();
        EXPECT_THAT(log.entries(), Contains("Sync engine deallocated."));
    }
    EXPECT_FALSE(answered);
    EXPECT_EQ(VLKMocCreator::sharedInstance(), nullptr);
    addNote("b");
    EXPECT_TRUE(host->save().ok());
    service.release(10);
    NS::NotificationCenter::defaultCenter().post("VLKDataUploaderDidUploadData", nullptr);
    settle();
    EXPECT_THAT(called, IsEmpty());
}

TEST_F(StateTest, logsItsMessages) {
    checkLogCases({
        {"creation",
         200,
         [this] { controller.reset(), controller = newController(); },
         {"Observing enabled.", "Velkor Sync System initialized.", "Syncable entities detected:", "\tNotebook", "\tNote", "\tTag",
          "\tAttachment"}},
        {"observing",
         200,
         [this] { controller->disableObserving(), controller->enableObserving(); },
         {"Observing disabled.", "Observing enabled."}},
        {"saving",
         200,
         [this] { controller->setInstanceId("me"), controller->save(); },
         {"Saving sync state...", "Saved state with identifier: me"}},
        {"saving to a file", 300, [this] { controller->saveSyncState(); }, {"Saving state to: " + statePath()}},
        {"loading", 200, [this] { controller->load(); }, {"Loaded 0 saved transactions."}},
        {"loading from a file", 300, [this] { controller->loadSyncState(); }, {"Loading state from: " + statePath()}},
        {"status", 300, [this] { controller->updateSyncStatusWithMessage("", 0.25F); }, {"0.250000"}},
    });
    LogCapture log(200);
    controller->setLogLevel(200);
    EXPECT_THAT(log.entries(), ElementsAre("Velkor Sync Logging set to: 200", "Syncable entities detected:", "\tNotebook",
                                           "\tNote", "\tTag", "\tAttachment"));
    EXPECT_EQ(controller->logLevel(), 200);
}

}  // namespace
}  // namespace velkor::test
