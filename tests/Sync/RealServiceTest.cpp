// The engine against the real service: two installations of one user, one after the other in this process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <map>

#include "Sync/VLKSyncableObjectHasher.h"
#include "platform/concurrency/RunLoop.h"
#include "tests/Sync/ControllerTest.h"
#include "tests/support/Program.h"

namespace velkor::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class RealServiceTest : public testing::Test {
protected:
    RealServiceTest() : service("velkord", {"--data", (directory / "service").string(), "--listen", "127.0.0.1:0"}) {
        url = service.waitForLine("velkord: listening on ");
    }
    ~RealServiceTest() override {
        service.signal(SIGTERM);
        EXPECT_EQ(service.wait().status, 0);
    }

    /// Runs the work with a controller over the store that keeps its state from call to call.
    void with(NotesStore& store, const std::function<void(TestController&)>& work) {
        TestController controller(url, [&store] { return store.newContext(); });
        controller.setAppId("org.velkor.test");
        controller.setStateSavePath((store.directory() / "SyncState.plist").string());
        controller.setEnableChunking(true);
        controller.setEmailAddress("ann@example.org");
        controller.setUserPassword("secret");
        controller.setKeepsEveryChange(true);
        controller.load();
        work(controller);
    }
    static bool signUp(TestController& controller) {
        std::optional<bool> done;
        controller.signupWithEmailAddress("ann@example.org", "secret",
                                          [&](bool success, const std::optional<NS::Error>&) { done = success; });
        return NS::RunLoop::main().runUntil([&] { return done.has_value(); }, 30) && *done;
    }
    static void sync(TestController& controller) {
        controller.forceSync();
        ASSERT_TRUE(NS::RunLoop::main().runUntil(
            [&] { return controller.cycleReport().unlockAnswered || controller.cycleReport().lockError; }, 60));
        EXPECT_FALSE(controller.lastError()) << controller.lastError()->description();
        EXPECT_FALSE(controller.cycleReport().lockError);
    }
    static void settle() {
        for (int turn = 0; turn < 3; ++turn) NS::RunLoop::main().dispatchPending();
    }
    static std::string hash(TestController& controller) {
        return *VLKSyncableObjectHasher(controller.ctxCreator()(), controller).hashOfKnownShareableObjects();
    }
    /// What the store holds: guid to title and notebook.
    static std::map<std::string, std::string> contents(NotesStore& store) {
        std::map<std::string, std::string> notes;
        const auto context = store.newContext();
        for (const auto& guid : guidsOf(*context, "Note")) {
            const auto note = fetchObject(*context, "Note", guid);
            const auto books = linked(note, "notebook");
            notes[guid] = note->valueForKey("title").description() + " in " + (books.empty() ? "none" : books.front());
        }
        return notes;
    }

    TemporaryDirectory directory;
    Program service;
    std::string url;
};

TEST_F(RealServiceTest, twoInstallationsConverge) {
    NotesStore a, b;
    std::string hashOfA;
    with(a, [&](TestController& controller) {
        ASSERT_TRUE(signUp(controller));
        const auto context = a.newContext();
        const auto book = insertObject(*context, "Notebook", "book", {{"title", "Book"}});
        for (int i = 0; i < 250; ++i) insertObject(*context, "Note", "n" + std::to_string(i), {{"title", i}, {"notebook", book}});
        insertObject(*context, "Notebook", "private", {{"doNotSynchronize", true}});
        ASSERT_TRUE(context->save().ok());
        settle();
        sync(controller);
        EXPECT_EQ(controller.cycleReport().sent, 251);
        EXPECT_EQ(controller.changes().size(), 0U);
        sync(controller);
        EXPECT_EQ(controller.cycleReport().sent, 0);
        EXPECT_EQ(controller.cycleReport().listings, 0);
        hashOfA = hash(controller);
    });
    with(b, [&](TestController& controller) {
        sync(controller);
        EXPECT_EQ(controller.cycleReport().received, 251);
        EXPECT_EQ(controller.cycleReport().listings, 0);
        EXPECT_EQ(hash(controller), hashOfA);
        const auto context = b.newContext();
        fetchObject(*context, "Note", "n7")->setValueForKey("edited", "title");
        context->deleteObject(fetchObject(*context, "Note", "n8"));
        ASSERT_TRUE(context->save().ok());
        settle();
        sync(controller);
        EXPECT_EQ(controller.cycleReport().sent, 2);
    });
    with(a, [&](TestController& controller) {
        EXPECT_EQ(controller.changes().size(), 0U);
        sync(controller);
        EXPECT_EQ(controller.cycleReport().received, 2);
    });
    EXPECT_EQ(contents(a), contents(b));
    EXPECT_EQ(contents(a).size(), 249U);
    EXPECT_EQ(contents(a)["n7"], "edited in book");
}

TEST_F(RealServiceTest, aListingMendsWhatTheServiceLost) {
    NotesStore a;
    with(a, [&](TestController& controller) {
        ASSERT_TRUE(signUp(controller));
        const auto context = a.newContext();
        insertObject(*context, "Note", "kept");
        ASSERT_TRUE(context->save().ok());
        settle();
        sync(controller);
        // The service is told nothing of this one, as after a restored backup.
        controller.disableObserving();
        insertObject(*context, "Note", "forgotten");
        ASSERT_TRUE(context->save().ok());
        settle();
        controller.enableObserving();
        sync(controller);
        EXPECT_EQ(controller.cycleReport().listings, 1);
        EXPECT_EQ(controller.cycleReport().sent, 1);
        sync(controller);
        EXPECT_EQ(controller.cycleReport().listings, 0);
    });
}

TEST_F(RealServiceTest, wrongPasswordsAndHeldLocksAreTold) {
    NotesStore a;
    with(a, [&](TestController& controller) {
        ASSERT_TRUE(signUp(controller));
        const auto login = [&](const std::string& password, std::size_t answers) {
            std::vector<std::string> told;
            controller.loginWithEmailAddress("ann@example.org", password,
                                             [&](bool success, const std::optional<NS::Error>& error) {
                                                 told.push_back(success ? "yes" : std::to_string(error->code()));
                                             });
            EXPECT_TRUE(NS::RunLoop::main().runUntil([&] { return told.size() == answers; }, 30));
            controller.setLoginCallback(nullptr);
            return told;
        };
        EXPECT_THAT(login("wrong", 2), ElementsAre("401", "401"));
        EXPECT_THAT(login("secret", 1), ElementsAre("yes"));
        EXPECT_TRUE(controller.loggedIn());
        const auto mine = controller.instanceId();
        controller.setInstanceId("another installation");
        bool locked = false;
        controller.lockWithContinuation([&] { locked = true; });
        ASSERT_TRUE(NS::RunLoop::main().runUntil([&] { return locked; }, 30));
        controller.setInstanceId(mine);
        controller.setSyncInProgress(false);
        controller.forceSync();
        ASSERT_TRUE(NS::RunLoop::main().runUntil([&] { return controller.cycleReport().lockError.has_value(); }, 30));
        EXPECT_EQ(controller.cycleReport().lockError->code(), 409);
    });
}

}  // namespace
}  // namespace velkor::test
