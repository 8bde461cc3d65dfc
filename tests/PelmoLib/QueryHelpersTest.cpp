#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "PelmoLib/NSManagedObject+Utils.h"
#include "PelmoLib/NSManagedObjectContext+Utils.h"
#include "platform/base/Exception.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NotesModel.h"

namespace velkor::test {
namespace {

using namespace NS;
using testing::ElementsAre;

class QueryHelpersTest : public testing::Test {
protected:
    QueryHelpersTest() : context(store.newContext()) {
        ObjectClass::registerClass<LocalDraft>("NoEntity");
        for (const char* guid : {"b", "a", "c"}) insertObject(*context, "Tag", guid);
        EXPECT_TRUE(context->save().ok());
    }
    std::vector<std::string> run(const FetchRequest& request) {
        std::vector<std::string> guids;
        const auto found = context->executeFetchRequest(request);
        for (const auto& object : found.value()) guids.push_back(object->valueForKey("guid").stringOr(""));
        return guids;
    }
    const ObjectClass& tags() const { return *ObjectClass::of<Tag>(); }
    const ObjectClass& noEntity() const { return *ObjectClass::forName("NoEntity"); }

    NotesStore store;
    std::shared_ptr<ManagedObjectContext> context;
};

TEST_F(QueryHelpersTest, AllObjectsOfAClass) {
    EXPECT_EQ(entityName(tags()), "Tag");
    EXPECT_EQ(entityDescriptionInContext(tags(), *context)->name(), "Tag");
    EXPECT_THAT(run(fetchRequestForAllObjectsInContext(tags(), *context, "guid", true)), ElementsAre("a", "b", "c"));
    EXPECT_THAT(run(fetchRequestForAllObjectsInContext(tags(), *context, "guid", false)), ElementsAre("c", "b", "a"));
    EXPECT_EQ(allObjectsInContext(tags(), *context)->size(), 3u);
    EXPECT_EQ(allEntitiesOfType(*context, "Tag")->size(), 3u);
    EXPECT_EQ(recordCountInContext(tags(), *context), 3u);
    std::optional<Error> error;
    EXPECT_EQ(
        firstMatchForRequest(*context, fetchRequestForAllObjectsInContext(tags(), *context, "guid", false))->valueForKey("guid"),
        "c");
    FetchRequest none(context->managedObjectModel().entityNamed("Note"));
    EXPECT_FALSE(firstMatchForRequest(*context, none, &error));
    EXPECT_FALSE(error);

    EXPECT_TRUE(clearTableInContext(tags(), *context));
    EXPECT_EQ(recordCountInContext(tags(), *store.newContext()), 0u) << "it was saved";
}

TEST_F(QueryHelpersTest, FailedFetchesAreTold) {
    std::optional<Error> error;
    EXPECT_FALSE(allObjectsInContext(noEntity(), *context, &error));
    ASSERT_TRUE(error);
    error.reset();
    EXPECT_EQ(recordCountInContext(noEntity(), *context, &error), std::numeric_limits<std::uint64_t>::max());
    ASSERT_TRUE(error);
    error.reset();
    EXPECT_FALSE(allEntitiesOfType(*context, "NoEntity", &error));
    ASSERT_TRUE(error);
    error.reset();
    EXPECT_FALSE(firstMatchForRequest(*context, FetchRequest(nullptr), &error));
    EXPECT_TRUE(error);
}

TEST_F(QueryHelpersTest, ChildrenOfAOneToManyRelationship) {
    const auto notebook = insertObject(*context, "Notebook", "k1");
    for (const char* guid : {"n2", "n1"}) insertObject(*context, "Note", guid, {{"notebook", notebook}});
    insertObject(*context, "Note", "other");
    ASSERT_TRUE(context->save().ok());
    EXPECT_THAT(run(fetchRequestForChildrenOfRelationshipNamed(notebook, "notes", "guid", true)), ElementsAre("n1", "n2"));
    EXPECT_THAT(run(fetchRequestForChildrenOfRelationshipNamed(notebook, "notes", "guid", false)), ElementsAre("n2", "n1"));

    const auto note = fetchObject(*context, "Note", "n1");
    EXPECT_THROW(fetchRequestForChildrenOfRelationshipNamed(note, "nothing"), AssertionFailure);
    EXPECT_THROW(fetchRequestForChildrenOfRelationshipNamed(note, "tags"), AssertionFailure) << "many to many";
    EXPECT_THROW(fetchRequestForChildrenOfRelationshipNamed(note, "notebook"), AssertionFailure) << "to one";
    checkLogCases({
        {"unknown",
         LogCase::always,
         [&] { fetchRequestForChildrenOfRelationshipNamed(note, "nothing"); },
         {"Relationship 'nothing' does not exist"}},
        {"many to many",
         LogCase::always,
         [&] { fetchRequestForChildrenOfRelationshipNamed(note, "tags"); },
         {"Relationship is not a one-to-many relationship."}},
    });
}

TEST_F(QueryHelpersTest, ObjectsCrossContextsByTheirIdentifiers) {
    const auto unsaved = insertObject(*context, "Note", "n1");
    const auto ids = objectIdsForObjects(*context, ObjectSet{unsaved, fetchObject(*context, "Tag", "a")});
    ASSERT_EQ(ids.size(), 2u);
    EXPECT_FALSE(ids[0]->isTemporaryID());
    const auto other = store.newContext();
    EXPECT_THROW(objectsForObjectsWithIds(*other, ids), Exception) << "not there before the save";
    ASSERT_TRUE(context->save().ok());
    const ObjectSet found = objectsForObjectsWithIds(*other, ids);
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found.allObjects()[0]->valueForKey("guid"), "n1");
    EXPECT_EQ(found.allObjects()[0]->managedObjectContext(), other.get());

    LogCapture log;
    other->deleteObject(found.allObjects()[0]);
    ASSERT_TRUE(other->save().ok());
    EXPECT_THROW(objectsForObjectsWithIds(*store.newContext(), ids), Exception);
    ASSERT_EQ(log.entries().size(), 1u);
    EXPECT_THAT(log.entries()[0], testing::StartsWith("Error: "));
    EXPECT_THAT(log.entries()[0], testing::HasSubstr("\n"));
}

}  // namespace
}  // namespace velkor::test
