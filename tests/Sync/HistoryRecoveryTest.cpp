// Recovery from the store's history: no change of the host is lost, wherever the process dies.
#include <gmock/gmock.h>

#include <cstdlib>
#include <fstream>
#include <set>

#include "Sync/VLKChangeWriteOperation.h"
#include "Sync/VLKHistoryRecovery.h"
#include "platform/concurrency/RunLoop.h"
#include "tests/Sync/ControllerTest.h"
#include "tests/support/Program.h"

namespace velkor::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

TEST(NumberRangesTest, joinWhatTouchesAndForgetFromBelow) {
    VLKNumberRanges ranges;
    for (const int number : {5, 7, 6, 1, 2, 10, 6, 9}) ranges.insert(number);
    std::vector<int> held;
    for (int number = 0; number < 12; ++number) {
        if (ranges.contains(number)) held.push_back(number);
    }
    EXPECT_THAT(held, ElementsAre(1, 2, 5, 6, 7, 9, 10));
    ranges.removeUpTo(6);
    EXPECT_FALSE(ranges.contains(2));
    EXPECT_FALSE(ranges.contains(6));
    EXPECT_TRUE(ranges.contains(7));
    EXPECT_TRUE(ranges.contains(10));
}

// --- The host that dies: run in a child process over the directory and the service that the environment names ---

std::string environment(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

class DyingHost : public testing::Test {
protected:
    DyingHost() : directory(environment("VELKOR_TEST_DIRECTORY")) {
        notes::registerClasses();
        auto opened = NS::PersistentStoreCoordinator::open(notes::makeModel(), directory / "Notes.sqlite");
        EXPECT_TRUE(opened.ok()) << opened.error().description();
        coordinator = std::move(opened).value();
        host = NS::ManagedObjectContext::create(coordinator);
    }

    void startController() {
        controller = std::make_unique<TestController>(environment("VELKOR_TEST_SERVICE"),
                                                      [this] { return NS::ManagedObjectContext::create(coordinator); });
        controller->setAppId("org.velkor.test");
        controller->setEmailAddress("ann@example.org");
        controller->setUserPassword("secret");
        controller->setStateSavePath((directory / "SyncState.plist").string());
        controller->setKeepsEveryChange(true);
        controller->load();
    }
    void save(std::string_view name) {
        ASSERT_TRUE(host->save().ok());
        std::ofstream(directory / "progress", std::ios::app) << name << std::endl;
        for (int turn = 0; turn < 3; ++turn) NS::RunLoop::main().dispatchPending();
    }

    std::filesystem::path directory;
    std::shared_ptr<NS::PersistentStoreCoordinator> coordinator;
    std::shared_ptr<NS::ManagedObjectContext> host;
    std::unique_ptr<TestController> controller;
};

TEST_F(DyingHost, DISABLED_savesAndKeepsItsState) {
    startController();
    auto a = insertObject(*host, "Note", "a"), c = insertObject(*host, "Note", "c");
    save("first");
    controller->save();
    a->setValueForKey("edited", "title");
    insertObject(*host, "Note", "b");
    save("second");
    host->deleteObject(c);
    save("third");
    controller->save();
    a->setValueForKey("edited again", "title");
    save("fourth");
}

TEST_F(DyingHost, DISABLED_syncs) {
    startController();
    controller->setEnableChunking(true);
    for (int i = 0; i < 150; ++i) insertObject(*host, "Note", "n" + std::to_string(i));
    save("first");
    controller->forceSync();
    EXPECT_TRUE(NS::RunLoop::main().runUntil([this] { return controller->cycleReport().unlockAnswered; }, 60));
    fetchObject(*host, "Note", "n0")->setValueForKey("edited", "title");
    save("second");
    controller->save();
}

TEST_F(DyingHost, DISABLED_onlySaves) {
    insertObject(*host, "Note", "from elsewhere");
    save("first");
}

// --- What is found afterwards ---

class HistoryRecoveryTest : public ControllerTest {
protected:
    HistoryRecoveryTest() {
        controller->setKeepsEveryChange(true);
        controller->load();
    }
    /// Runs the host in the directory of this test's store.
    int runHost(const std::string& name, const Environment& extra = {}) {
        Environment variables = extra;
        variables["VELKOR_TEST_DIRECTORY"] = store.directory().string();
        variables["VELKOR_TEST_SERVICE"] = service.url();
        return run("test_Sync", {"--gtest_also_run_disabled_tests", "--gtest_filter=DyingHost.DISABLED_" + name}, variables)
            .status;
    }
    void restart() {
        controller.reset();
        controller = newController();
        controller->setKeepsEveryChange(true);
        controller->load();
    }
    std::size_t keptRows() const {
        std::size_t rows = 0;
        EXPECT_TRUE(store.coordinator()->historyAfter(0, [&](NS::HistoryRow&&) { ++rows; }).ok());
        return rows;
    }
    NS::Value token() { return (*controller->syncState())["STORE_HISTORY_TOKEN"]; }
};

TEST_F(HistoryRecoveryTest, whatWasNotKeptComesBack) {
    auto note = addNote("n");
    addNote("gone");
    insertObject(*host, "Tag", "t");
    insertObject(*host, "Notebook", "private", {{"doNotSynchronize", true}});
    host->insertNewObjectForEntityForName("LocalDraft");
    save();
    note->setValueForKey("edited", "title");
    save();
    host->deleteObject(fetchObject(*host, "Note", "gone"));
    host->deleteObject(fetchObject(*host, "Notebook", "private"));
    save();
    const auto live = controller->changes();
    restart();
    EXPECT_THAT(pending(), testing::UnorderedElementsAreArray(described(live)));
    for (const auto& [guid, captured] : live) {
        const auto recovered = controller->changes().find(guid)->second;
        EXPECT_EQ(recovered->date(), captured->date()) << "the service must see the same transaction";
        EXPECT_GT(captured->historySequence(), 0);
        EXPECT_EQ(recovered->historySequence(), captured->historySequence());
    }
}

TEST_F(HistoryRecoveryTest, aKeptChangeIsNotFiledAgainANewerOneIs) {
    addNote("old");
    auto note = addNote("n");
    save();
    controller->save();
    note->setValueForKey("edited", "title");
    save();
    const auto row = controller->changes().find("n")->second->historySequence();
    restart();
    EXPECT_THAT(pending(), ElementsAre("old INSERT", "n UPDATE"));
    EXPECT_EQ(controller->changes().find("n")->second->historySequence(), row);
}

TEST_F(HistoryRecoveryTest, theTokenMovesWithAcknowledgements) {
    addNote("a");
    save();
    addNote("b");
    save();
    controller->save();
    EXPECT_EQ(token(), NS::Value(controller->changes().find("a")->second->historySequence() - 1));
    EXPECT_EQ(keptRows(), 2U);
    sync();
    EXPECT_EQ(keptRows(), 0U);
    EXPECT_EQ(token(), NS::Value(store.coordinator()->newestHistorySequence().value()));
    addNote("c");
    save();
    controller->readyCurrentChunk();  // in flight, not archived
    controller->save();
    EXPECT_EQ(keptRows(), 1U);
    restart();
    EXPECT_THAT(pending(), ElementsAre("c INSERT"));
}

TEST_F(HistoryRecoveryTest, whatIsNotTheHostsChangeStaysOut) {
    answerChanges({R"({"SYNC_HASH":"IN_SYNC","new_xactions":[)" + receivedInsert("Note", "received") + "]}"});
    sync();
    controller->disableObserving();
    addNote("unobserved");
    save();
    controller->enableObserving();
    insertObject(*controller->ctx(), "Note", "own");
    ASSERT_TRUE(controller->ctx()->save().ok());
    restart();
    EXPECT_THAT(guidsOf(*host, "Note"), ElementsAre("own", "received", "unobserved"));
    EXPECT_THAT(pending(), IsEmpty());
}

TEST_F(HistoryRecoveryTest, changesOfOtherProcessesAreFiledAtTheStartOfACycle) {
    addNote("mine");
    save();
    EXPECT_EQ(runHost("onlySaves"), 0);
    settle();
    EXPECT_THAT(pending(), ElementsAre("mine INSERT"));
    sync();
    EXPECT_THAT(keysOf(*changesRequest(0)["xactions"].asDictionary()), ElementsAre("mine", "from elsewhere"));
    EXPECT_EQ(keptRows(), 0U);
}

TEST_F(HistoryRecoveryTest, aLogoutLeavesNothingToRecover) {
    addNote("sent");
    save();
    controller->readyCurrentChunk();
    addNote("pending");
    save();
    EXPECT_EQ(runHost("onlySaves"), 0);
    controller->logout();
    EXPECT_EQ(keptRows(), 0U);
    restart();
    EXPECT_THAT(pending(), IsEmpty());
}

TEST_F(HistoryRecoveryTest, aDeletionIsFiledThoughTheStoreCannotBeReadMeanwhile) {
    addNote("n");
    save();
    sync();
    host->deleteObject(fetchObject(*host, "Note", "n"));
    save();
    store.renameTable("e_Note", "away");
    restart();
    store.renameTable("away", "e_Note");
    EXPECT_THAT(pending(), ElementsAre("n DELETE"));
}

TEST_F(HistoryRecoveryTest, aStateOfAnotherStoreHidesNothing) {
    controller->syncState()->set("STORE_HISTORY_TOKEN", 1'000'000);
    controller->saveSyncState();
    addNote("n");
    save();
    restart();
    EXPECT_THAT(pending(), ElementsAre("n INSERT"));
}

TEST_F(HistoryRecoveryTest, aTransactionWithoutARowKeepsTheOneItReplaces) {
    addNote("n");
    save();
    const auto row = controller->changes().find("n")->second->historySequence();
    EXPECT_GT(row, 0);
    controller->createTransactionsForObjectsFromJSON({"n"});
    EXPECT_EQ(controller->changes().find("n")->second->historySequence(), row);
}

TEST_F(HistoryRecoveryTest, whatStandsForARowAlreadyIsNotReplacedByIt) {
    auto note = addNote("n");
    save();
    sync();
    note->setValueForKey("edited", "title");
    save();
    controller->createTransactionsForObjectsFromJSON({"n"});
    controller->save();
    restart();
    EXPECT_THAT(pending(), ElementsAre("n INSERT"));
}

TEST_F(HistoryRecoveryTest, whatHistoryDoesNotHoldIsKeptWithTheNextAnswer) {
    controller->setEnableChunking(true);
    for (int i = 0; i < 1500; ++i) addNote("n" + std::to_string(i));
    save();
    controller->save();
    service.script(
        "POST", "/users/7/transactions.json",
        {FakeAnswer::json(R"({"SYNC_HASH":"IN_SYNC"})"), FakeAnswer::json(R"({"SYNC_HASH":"IN_SYNC"})").heldUntilReleased()});
    controller->sendUpdates();
    ASSERT_TRUE(service.awaitRequests(1, "/users/7/transactions.json"));
    controller->addGenericObjectTransactionForKeyPath("refreshInterval", *controller, "prefs");
    ASSERT_TRUE(service.awaitRequests(2, "/users/7/transactions.json"));
    const auto guid = controller->guidForGenericObjectKeyPath("refreshInterval", "prefs");
    restart();
    EXPECT_TRUE(controller->changes().find(guid) != controller->changes().end());
}

// --- Death at every durable step ---

#ifdef VELKOR_DURABLE_STEPS

class DeathTest : public HistoryRecoveryTest {
protected:
    int stepsOf(const std::string& name) {
        TemporaryDirectory directory;
        const auto count = directory / "steps";
        const Environment variables{{"VELKOR_STEP_COUNT_FILE", count.string()},
                                    {"VELKOR_TEST_DIRECTORY", directory.path().string()},
                                    {"VELKOR_TEST_SERVICE", service.url()}};
        EXPECT_EQ(
            run("test_Sync", {"--gtest_also_run_disabled_tests", "--gtest_filter=DyingHost.DISABLED_" + name}, variables).status,
            0);
        int steps = 0;
        std::ifstream(count) >> steps;
        EXPECT_GT(steps, 5);
        return steps;
    }
    /// Runs the host in a fresh directory until it dies at the step, then looks at what a restarted controller finds.
    void dieAt(
        const std::string& name, int step,
        const std::function<void(TestController&, NS::ManagedObjectContext&, const std::set<std::string>& saves)>& examine) {
        SCOPED_TRACE(step);
        TemporaryDirectory directory;
        run("test_Sync", {"--gtest_also_run_disabled_tests", "--gtest_filter=DyingHost.DISABLED_" + name},
            {{"VELKOR_DIE_AT_STEP", std::to_string(step)},
             {"VELKOR_TEST_DIRECTORY", directory.path().string()},
             {"VELKOR_TEST_SERVICE", service.url()}});
        std::set<std::string> saves;
        std::ifstream progress(directory / "progress");
        for (std::string line; std::getline(progress, line);) saves.insert(line);
        auto opened = NS::PersistentStoreCoordinator::open(notes::makeModel(), directory / "Notes.sqlite");
        ASSERT_TRUE(opened.ok()) << opened.error().description();
        const auto newContext = [&] { return NS::ManagedObjectContext::create(opened.value()); };
        TestController survivor(service.url(), newContext);
        survivor.setStateSavePath((directory / "SyncState.plist").string());
        survivor.setKeepsEveryChange(true);
        survivor.load();
        EXPECT_TRUE(survivor.syncState());
        examine(survivor, *newContext(), saves);
    }
};

TEST_F(DeathTest, betweenSavesAndTheStateFile) {
    controller.reset();
    const int steps = stepsOf("savesAndKeepsItsState");
    for (int step = 1; step <= steps; ++step) {
        dieAt("savesAndKeepsItsState", step,
              [](TestController& survivor, NS::ManagedObjectContext& context, const std::set<std::string>& saves) {
                  std::set<std::string> guids;
                  for (const auto& guid : guidsOf(context, "Note")) guids.insert(guid);
                  if (saves.contains("first")) {
                      EXPECT_TRUE(guids.contains("a"));
                  }
                  if (saves.contains("second")) {
                      EXPECT_TRUE(guids.contains("b"));
                  }
                  if (saves.contains("third")) {
                      EXPECT_FALSE(guids.contains("c"));
                  }
                  for (const auto& guid : guids) {
                      const auto found = survivor.changes().find(guid);
                      ASSERT_NE(found, survivor.changes().end()) << guid << " is in the store and would never be sent";
                      EXPECT_FALSE(found->second->isDelete());
                  }
                  if (guids.contains("a") && !guids.contains("c")) {
                      EXPECT_THAT(described(survivor.changes()), testing::Contains("c DELETE"));
                  }
                  for (const auto& [guid, transaction] : survivor.changes()) EXPECT_GT(transaction->historySequence(), 0);
              });
    }
}

TEST_F(DeathTest, withABatchInFlight) {
    controller.reset();
    const int steps = stepsOf("syncs");
    for (int step = 1; step <= steps; ++step) {
        const auto requestsBefore = service.requestCount("/users/7/transactions.json");
        dieAt("syncs", step,
              [&](TestController& survivor, NS::ManagedObjectContext& context, const std::set<std::string>& saves) {
                  std::set<std::string> sent;
                  for (std::size_t i = requestsBefore; i < service.requestCount("/users/7/transactions.json"); ++i) {
                      const auto request = changesRequest(i);
                      for (const auto& entry : *request["xactions"].asDictionary()) sent.insert(std::string(entry.key()));
                  }
                  const auto guids = guidsOf(context, "Note");
                  EXPECT_EQ(guids.size(), saves.contains("first") || !guids.empty() ? 150U : 0U);
                  for (const auto& guid : guids)
                      EXPECT_TRUE(sent.contains(guid) || survivor.changes().contains(guid)) << guid << " is lost";
                  if (saves.contains("second")) {
                      EXPECT_TRUE(survivor.changes().contains("n0")) << "the edit is lost";
                  }
              });
    }
}

#endif

}  // namespace
}  // namespace velkor::test
