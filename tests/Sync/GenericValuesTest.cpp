// Generic values: key paths of observed objects outside the store.
#include <gmock/gmock.h>

#include <atomic>
#include <thread>

#include "Sync/VLKGenericObjectInfo.h"
#include "Sync/VLKMainThreadQuestions.h"
#include "platform/base/Exception.h"
#include "platform/concurrency/RunLoop.h"
#include "tests/Sync/ControllerTest.h"

namespace velkor::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class GenericValuesTest : public ControllerTest {
protected:
    void registerTheme() { controller->registerObservationOfKeyPath("theme", preferences, "prefs"); }
    std::shared_ptr<NS::Observable> preferences = std::make_shared<NS::Observable>();
    const std::string guid = "ann@example.org_prefs_theme";
};

TEST_F(GenericValuesTest, theLatestStateOfAValueIsPending) {
    preferences->setValueForKey("light", "theme");
    registerTheme();
    EXPECT_THAT(pending(), IsEmpty());
    preferences->setValueForKey("dark", "theme");
    preferences->setValueForKey("blue", "theme");
    EXPECT_THAT(pending(), ElementsAre(guid + " UPDATE"));
    preferences->setValueForKey({}, "theme");
    EXPECT_THAT(pending(), ElementsAre(guid + " DELETE"));
    EXPECT_EQ(controller->changes().find(guid)->second->objType(), "GENERIC_OBJECT");

    controller->dropPendingTransactions();
    controller->addTransactionsForGenericObjectsInSet({"unknown", guid, 5});
    EXPECT_THAT(pending(), ElementsAre(guid + " DELETE"));
    EXPECT_EQ(controller->observedObjectWithGenericObjectIdAndKeyPath("prefs_theme"), preferences);
    EXPECT_EQ(controller->genericObjectKeyForKeyPath("a.b", "prefs"), "prefs_a.b");
}

TEST_F(GenericValuesTest, changesAreRecordedForAKnownUserOnly) {
    controller->setEmailAddress(std::nullopt);
    registerTheme();
    EXPECT_EQ(controller->genericObjectGuids().begin()->first, "(null)_prefs_theme");
    preferences->setValueForKey("dark", "theme");
    EXPECT_THAT(pending(), IsEmpty());
    controller->setEmailAddress("ann@example.org");
    preferences->setValueForKey("light", "theme");
    EXPECT_THAT(pending(), ElementsAre(guid + " UPDATE"));
}

TEST_F(GenericValuesTest, aValueBeingSetIsNotRecorded) {
    registerTheme();
    controller->genericObjectGuids().find(guid)->second->setSetting(true);
    preferences->setValueForKey("dark", "theme");
    EXPECT_THAT(pending(), IsEmpty());
}

TEST_F(GenericValuesTest, changesOnOtherThreadsAreFiledOnTheMainThread) {
    registerTheme();
    std::thread([this] { preferences->setValueForKey("dark", "theme"); }).join();
    EXPECT_THAT(pending(), IsEmpty());
    settle();
    EXPECT_THAT(pending(), ElementsAre(guid + " UPDATE"));
}

TEST_F(GenericValuesTest, anEndedRegistrationRecordsNothing) {
    registerTheme();
    preferences->setValueForKey("dark", "theme");
    controller->unregisterObservationOfKeyPath("theme", "prefs");
    EXPECT_EQ(controller->observedObjectWithGenericObjectIdAndKeyPath("prefs_theme"), nullptr);
    EXPECT_TRUE(controller->genericObjectGuids().empty());
    preferences->setValueForKey({}, "theme");
    EXPECT_THAT(pending(), ElementsAre(guid + " UPDATE"));
    controller->registerObservationOfKeyPath("theme", preferences, "prefs");
    controller.reset();
    preferences->setValueForKey("after teardown", "theme");
}

TEST_F(GenericValuesTest, setValuesAreKnownAndAcknowledgedWithTheBatch) {
    registerTheme();
    EXPECT_THAT(controller->guidsOfGenericValues(), IsEmpty());
    preferences->setValueForKey("dark", "theme");
    EXPECT_THAT(controller->guidsOfGenericValues(), ElementsAre(guid));
    sync();
    EXPECT_THAT(keysOf(*changesRequest(0)["xactions"].asDictionary()), IsEmpty());
    EXPECT_THAT(pending(), IsEmpty());
    EXPECT_EQ(controller->cycleReport().sent, 0);
}

TEST_F(GenericValuesTest, nestedPathsFollowTheObjectsOnTheWay) {
    const auto editor = [](int fontSize) {
        auto made = std::make_shared<NS::Observable>();
        made->setValueForKey(fontSize, "fontSize");
        return made;
    };
    const auto first = editor(12);
    preferences->setValueForKey(first, "editor");
    controller->registerObservationOfKeyPath("editor.fontSize", preferences, "prefs");
    const std::string nested = "ann@example.org_prefs_editor.fontSize";
    const auto changeIsRecorded = [&](const std::function<void()>& change) {
        controller->dropPendingTransactions();
        change();
        return pending();
    };
    EXPECT_THAT(changeIsRecorded([&] { first->setValueForKey(14, "fontSize"); }), ElementsAre(nested + " UPDATE"));
    EXPECT_THAT(changeIsRecorded([&] { preferences->setValueForKey(editor(16), "editor"); }), ElementsAre(nested + " UPDATE"));
    EXPECT_THAT(changeIsRecorded([&] { first->setValueForKey(18, "fontSize"); }), IsEmpty());
    EXPECT_THAT(changeIsRecorded([&] { preferences->setValueForKey({}, "editor"); }), ElementsAre(nested + " DELETE"));
}

TEST_F(GenericValuesTest, aSecondRegistrationReplacesTheEntriesOnly) {
    registerTheme();
    const auto first = preferences;
    preferences = std::make_shared<NS::Observable>();
    registerTheme();
    EXPECT_EQ(controller->observedObjectWithGenericObjectIdAndKeyPath("prefs_theme"), preferences);
    EXPECT_EQ(controller->genericObjectGuids().size(), 1U);
    first->setValueForKey("dark", "theme");
    EXPECT_THAT(pending(), ElementsAre(guid + " UPDATE")) << "the first observation stays active";
    EXPECT_THAT(controller->guidsOfGenericValues(), IsEmpty());
}

TEST_F(GenericValuesTest, logsItsMessages) {
    checkLogCases({{"ending what was never registered",
                    LogCase::always,
                    [this] { controller->unregisterObservationOfKeyPath("theme", "prefs"); },
                    {NS::format("Ignoring the attempt to remove a non-existent observer of %@ with token %@",
                                controller->description(), "")}}});
}

TEST(MainThreadQuestionsTest, aQuestionThatRaisesIsAnsweredAllTheSame) {
    NS::RunLoop::main();
    VLKMainThreadQuestions questions;
    LogCapture log;
    std::atomic<int> answer = -1;
    std::thread asker([&] { answer = questions.ask([] { throw NS::Exception("Name", "reason"); }); });
    EXPECT_TRUE(NS::RunLoop::main().runUntil([&] { return answer >= 0; }, 30));
    questions.close();
    asker.join();
    EXPECT_EQ(answer, 0);
    EXPECT_THAT(log.entries(), ElementsAre("Name: reason"));
}

}  // namespace
}  // namespace velkor::test
