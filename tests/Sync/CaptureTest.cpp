// Change capture: what a save of the host's store leaves among the pending changes.
#include <gmock/gmock.h>

#include <stdexcept>
#include <thread>

#include "PelmoLib/VLKSyncableObject.h"
#include "Sync/VLKSyncableKind.h"
#include "platform/concurrency/NotificationCenter.h"
#include "platform/concurrency/RunLoop.h"
#include "tests/Sync/ControllerTest.h"

namespace velkor::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

using CaptureTest = ControllerTest;

TEST_F(CaptureTest, theLatestChangeOfAnObjectIsPending) {
    auto note = addNote("n");
    save();
    EXPECT_THAT(pending(), ElementsAre("n INSERT"));
    const auto transaction = controller->changes().find("n")->second;
    EXPECT_EQ(transaction->objType(), "Note");
    EXPECT_EQ(transaction->obj()->managedObjectContext(), controller->ctx().get());
    note->setValueForKey("changed", "title");
    save();
    EXPECT_THAT(pending(), ElementsAre("n UPDATE"));
    EXPECT_EQ(controller->changes().find("n")->second->obj()->valueForKey("title"), NS::Value("changed"));
    host->deleteObject(note);
    save();
    EXPECT_THAT(pending(), ElementsAre("n DELETE"));
    addNote("n");
    save();
    EXPECT_THAT(pending(), ElementsAre("n INSERT"));
}

TEST_F(CaptureTest, savesThatWaitAreHandledTogetherAsIfAlone) {
    auto kept = addNote("kept"), gone = addNote("gone");
    ASSERT_TRUE(host->save().ok());
    insertObject(*host, "Tag", "tag")->setValueForKey("t", "name");
    kept->setValueForKey("x", "title");
    ASSERT_TRUE(host->save().ok());
    host->deleteObject(gone);
    ASSERT_TRUE(host->save().ok());
    insertObject(*host, "Notebook", "book");
    ASSERT_TRUE(host->save().ok());
    EXPECT_THAT(pending(), IsEmpty());
    LogCapture log;
    settle();
    EXPECT_THAT(pending(), ElementsAre("kept UPDATE", "tag INSERT", "gone DELETE", "book INSERT"));
    EXPECT_THAT(log.entries(), ElementsAre("Unable to find requested object: gone"));
}

TEST_F(CaptureTest, anObjectWhoseMemberRaisesDoesNotHoldTheOthersBack) {
    NS::ObjectClass::registerClass<Note>("Note")
        .adopt(VLKSyncableObject)
        .answers("expired", [this](const NS::ManagedObject& note) {
            // Not on the saving thread: there the whole save would be lost.
            if (note.managedObjectContext() != host.get() && guidOfObject(note) == NS::Value("raises"))
                throw std::runtime_error("no answer");
            return NS::Value(false);
        });
    addNote("first");
    ASSERT_TRUE(host->save().ok());
    addNote("raises");
    ASSERT_TRUE(host->save().ok());
    insertObject(*host, "Tag", "last");
    ASSERT_TRUE(host->save().ok());
    LogCapture log;
    settle();
    EXPECT_THAT(pending(), ElementsAre("first INSERT", "raises INSERT", "last INSERT"));
    EXPECT_THAT(log.entries(), ElementsAre("no answer"));
}

TEST_F(CaptureTest, flagsAndClassesDecideWhatTakesPart) {
    addNote("expired", {{"expired", true}});
    insertObject(*host, "Notebook", "private", {{"doNotSynchronize", true}});
    insertObject(*host, "Notebook", "shared", {{"doNotSynchronize", false}});
    host->insertNewObjectForEntityForName("LocalDraft");
    save();
    EXPECT_THAT(pending(), ElementsAre("shared INSERT"));
    host->deleteObject(fetchObject(*host, "Note", "expired"));
    save();
    EXPECT_THAT(pending(), ElementsAre("shared INSERT"));

    // A class that answers both is judged by `expired` alone.
    NS::ObjectClass::registerClass<Notebook>("Notebook")
        .adopt(VLKSyncableObject)
        .answersWithAttribute("doNotSynchronize")
        .answers("expired", [](const NS::ManagedObject& object) { return object.valueForKey("title") == NS::Value("expired"); });
    insertObject(*host, "Notebook", "both", {{"doNotSynchronize", true}});
    insertObject(*host, "Notebook", "gone", {{"title", "expired"}});
    save();
    EXPECT_THAT(pending(), ElementsAre("shared INSERT", "both INSERT"));
    EXPECT_TRUE(controller->objectIsSyncable(*fetchObject(*host, "Notebook", "both")));
    EXPECT_FALSE(controller->objectIsSyncable(*fetchObject(*host, "Notebook", "gone")));
    EXPECT_TRUE(controller->classIsSyncable(NS::ObjectClass::forName("Note")));
    EXPECT_FALSE(controller->classIsSyncable(NS::ObjectClass::forName("LocalDraft")));
    EXPECT_FALSE(controller->classIsSyncable(nullptr));
}

TEST_F(CaptureTest, savesFromOtherThreadsComeInTheirOrder) {
    std::thread([this] {
        const auto context = store.newContext();
        auto note = insertObject(*context, "Note", "n", {{"title", "one"}});
        ASSERT_TRUE(context->save().ok());
        note->setValueForKey("two", "title");
        ASSERT_TRUE(context->save().ok());
    }).join();
    settle();
    EXPECT_THAT(pending(), ElementsAre("n UPDATE"));
    EXPECT_EQ(controller->changes().find("n")->second->obj()->valueForKey("title"), NS::Value("two"));
}

TEST_F(CaptureTest, whileNobodyObservesSavesAreOnlyMerged) {
    addNote("n", {{"title", "before"}});
    save();
    const auto own = fetchObject(*controller->ctx(), "Note", "n");
    EXPECT_EQ(own->valueForKey("title"), NS::Value("before"));
    controller->dropPendingTransactions();
    controller->disableObserving();
    fetchObject(*host, "Note", "n")->setValueForKey("after", "title");
    save();
    EXPECT_THAT(pending(), IsEmpty());
    EXPECT_EQ(own->valueForKey("title"), NS::Value("after"));
    controller->enableObserving();
    settle();
    EXPECT_THAT(pending(), IsEmpty());
}

TEST_F(CaptureTest, theEnginesOwnSavesAreNotChanges) {
    insertObject(*controller->ctx(), "Note", "own");
    ASSERT_TRUE(controller->ctx()->save().ok());
    settle();
    EXPECT_THAT(pending(), IsEmpty());
    answerChanges({R"({"HIGHEST_XACTION":5,"SYNC_HASH":"IN_SYNC","new_xactions":[)" + receivedInsert("Note", "received") + "]}"});
    sync();
    EXPECT_THAT(guidsOf(*host, "Note"), ElementsAre("own", "received"));
    EXPECT_THAT(pending(), IsEmpty());
}

TEST_F(CaptureTest, anotherStoresObjectsAreLookedUpHere) {
    NotesStore other;
    const auto context = other.newContext();
    addNote("both");
    save();
    controller->dropPendingTransactions();
    insertObject(*context, "Note", "both");
    insertObject(*context, "Note", "elsewhere");
    ASSERT_TRUE(context->save().ok());
    LogCapture log;
    settle();
    EXPECT_THAT(pending(), ElementsAre("both INSERT"));
    EXPECT_THAT(log.entries(), ElementsAre("Unable to find requested object: elsewhere"));
}

TEST_F(CaptureTest, anObjectWithoutAGuidEndsTheHandlingOfItsSaveOnly) {
    addNote("");
    addNote("n");
    LogCapture log;
    save();
    EXPECT_THAT(pending(), IsEmpty());
    ASSERT_EQ(log.entries().size(), 2U);
    EXPECT_EQ(log.entries()[0], "Object of type: Note is syncable but has no GUID.");
    EXPECT_THAT(log.entries()[1], testing::StartsWith("NSInvalidArgumentException: "));
    addNote("m");
    save();
    EXPECT_THAT(pending(), ElementsAre("m INSERT"));
}

TEST_F(CaptureTest, objectsAreFoundByGuid) {
    addNote("n");
    addNote("expired", {{"expired", true}});
    insertObject(*host, "Tag", "t");
    save();
    const auto guids = [](const NS::ObjectSet& objects) {
        std::vector<std::string> found;
        for (const auto& object : objects) found.push_back(object->valueForKey("guid").stringOr(""));
        return found;
    };
    const auto& entity = *host->managedObjectModel().entityNamed("Note");
    EXPECT_THAT(guids(controller->objectsOfType(entity, {"n", "t", "expired", "none"}, *host)),
                UnorderedElementsAre("n", "expired"));
    {
        LogCapture log;
        EXPECT_THAT(guids(controller->objectsForGuids({"t", "n", "expired", "none"})), UnorderedElementsAre("n", "t"));
        EXPECT_THAT(log.entries(),
                    ElementsAre("Unable to find requested object: expired", "Unable to find requested object: none"));
    }
    EXPECT_EQ(controller->objectForGuid("t", *host)->entity().name(), "Tag");
    EXPECT_EQ(controller->objectForGuid("expired", *host)->entity().name(), "Note");
    EXPECT_EQ(controller->objectForGuid("none", *host), nullptr);
    EXPECT_EQ(controller->guidsForObjects(controller->objectsForGuids({"t", "t"})), (NS::Array{"t"}));
}

TEST_F(CaptureTest, unknownObjectsOfAnAnswerBecomeInserts) {
    addNote("n");
    insertObject(*host, "Tag", "t");
    save();
    controller->dropPendingTransactions();
    LogCapture log;
    controller->createTransactionsForObjectsFromJSON({"t", "n", "t", "none", 5});
    EXPECT_THAT(pending(), ElementsAre("t INSERT", "n INSERT"));
    EXPECT_THAT(log.entries(), ElementsAre("Unable to find requested object: none"));
}

TEST_F(CaptureTest, objectsOfAClassThatTwoEntitiesShareAreKeptApart) {
    NS::ModelBuilder builder;
    builder.entity("Note").attribute("guid", NS::AttributeType::string);
    builder.entity("OldNote").className("Note").attribute("guid", NS::AttributeType::string);
    const auto model = std::move(builder.build()).value();
    NotesStore twoEntities({}, model);
    TestController own("http://127.0.0.1:1", [&] { return twoEntities.newContext(); });
    const auto context = twoEntities.newContext();
    insertObject(*context, "OldNote", "old");
    ASSERT_TRUE(context->save().ok());
    settle();
    ASSERT_THAT(described(own.changes()), ElementsAre("old INSERT"));
    EXPECT_EQ(own.changes().find("old")->second->obj()->entity().name(), "OldNote");
}

TEST_F(CaptureTest, logsItsMessages) {
    int number = 0;
    const auto next = [&number] { return "g" + std::to_string(++number); };
    NS::ObjectSet withoutGuid{addNote("")};
    host->deleteObject(*withoutGuid.begin());
    ObjectPointer detached = store.newContext()->insertNewObjectForEntityForName("Note");
    checkLogCases({
        {"a save",
         300,
         [&] { addNote(next()), host->insertNewObjectForEntityForName("LocalDraft"), save(); },
         {"Detected changed objects.", "Inserted: 2 Updated: 0 Deleted: 0"}},
        {"its guids", 400, [&] { addNote("g"), save(); }, {"Inserted guids: (\n    g\n)", "Updated guids: (\n)"}},
        {"an insert without a guid",
         100,
         [&] {
             addNote(""), save();
             host->rollback();
         },
         {"Object of type: Note is syncable but has no GUID."}},
        {"a change without a guid",
         100,
         [&] { controller->addChangesOfType("INSERT_XACTION", {addNote("")}), host->rollback(); },
         {"ERROR: Syncable object with no GUID!"}},
        {"a change without a context",
         100,
         [&] {
             detached->setValueForKey("d", "guid");
             controller->addChangesOfType("INSERT_XACTION", {detached});
         },
         {"No managed object context for object: d"}},
        {"a look-up in vain",
         100,
         [&] { controller->objectsForGuids({"nowhere"}); },
         {"Unable to find requested object: nowhere"}},
    });

    controller->disableObserving();
    auto note = addNote("");
    ASSERT_TRUE(host->save().ok());
    controller->enableObserving();
    host->deleteObject(note);
    LogCapture log;
    save();
    ASSERT_EQ(log.entries().size(), 1U);
    EXPECT_EQ(log.entries()[0], "ERROR: Deletion of syncable object of type Note without a GUID object: " + note->description());
}

}  // namespace
}  // namespace velkor::test
