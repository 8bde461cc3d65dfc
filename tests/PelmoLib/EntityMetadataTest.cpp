#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "PelmoLib/NSEntityDescription+VLK.h"
#include "PelmoLib/NSManagedObject+JSON.h"
#include "PelmoLib/VLKSyncableObject.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NotesModel.h"

namespace velkor::test {
namespace {

using namespace NS;
using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> names(const std::vector<const EntityDescription*>& entities) {
    std::vector<std::string> result;
    for (const auto* entity : entities) result.push_back(entity->name());
    return result;
}

TEST(EntityMetadataTest, SyncableEntitiesAreThoseWhoseClassAdoptsTheProtocol) {
    NotesStore store;
    const auto context = store.newContext();
    EXPECT_THAT(names(syncableEntityTypesInCtx(context.get())), ElementsAre("Notebook", "Note", "Tag", "Attachment"));
    EXPECT_THAT(syncableEntityTypesInCtx(nullptr), IsEmpty());
    ObjectClass::registerClass<Tag>("Tag");
    EXPECT_THAT(names(syncableEntityTypesInCtx(context.get())), ElementsAre("Notebook", "Note", "Attachment"));
}

TEST(EntityMetadataTest, BlobsAreTheAttributesOfBinaryData) {
    NotesStore store;
    const auto& model = store.coordinator()->managedObjectModel();
    EXPECT_TRUE(vlk_hasBlobs(*model.entityNamed("Attachment")));
    EXPECT_THAT(vlk_blobs(*model.entityNamed("Attachment")), ElementsAre("content", "thumbnail"));
    EXPECT_FALSE(vlk_hasBlobs(*model.entityNamed("Note")));
    EXPECT_THAT(vlk_blobs(*model.entityNamed("Note")), IsEmpty());
}

TEST(EntityMetadataTest, TheFirstEntityOfAClassIsFound) {
    ModelBuilder builder;
    builder.entity("First").className("Shared").attribute("guid", AttributeType::string);
    builder.entity("Second").className("Shared").attribute("guid", AttributeType::string);
    builder.entity("Third").attribute("picture", AttributeType::transformable);
    NotesStore store({}, builder.build().value());
    const auto context = store.newContext();
    EXPECT_EQ(entityDescriptionForClassNamed("Shared", context.get())->name(), "First");
    EXPECT_EQ(entityDescriptionForClassNamed("Third", context.get())->name(), "Third");
    EXPECT_FALSE(vlk_hasBlobs(*entityDescriptionForClassNamed("Third", context.get())));
    checkLogCases({
        {"unknown class",
         100,
         [&] { EXPECT_FALSE(entityDescriptionForClassNamed("First", context.get())); },
         {"Unable to find entity description for: First", "Found the following entity descriptions:", "\tShared", "\tShared",
          "\tThird"}},
        {"no context",
         100,
         [&] { EXPECT_FALSE(entityDescriptionForClassNamed("Shared", nullptr)); },
         {"Unable to find entity description for: Shared", "Found the following entity descriptions:", "Context is nil.",
          "Store is nil"}},
    });
}

TEST(EntityMetadataTest, AClassRespondsToWhatItDeclares) {
    NotesStore store;
    const auto context = store.newContext();
    const auto note = insertObject(*context, "Note", "n1");
    const auto tag = insertObject(*context, "Tag", "");
    const auto draft = context->insertNewObjectForEntityForName("LocalDraft");
    EXPECT_TRUE(respondsToGuid(*note));
    EXPECT_FALSE(respondsToGuid(*draft));
    EXPECT_EQ(guidOfObject(*note), "n1");
    EXPECT_TRUE(guidOfObject(*tag).isNil());
    EXPECT_TRUE(guidOfObject(*draft).isNil());
    EXPECT_TRUE(respondsToSetExpired(*note));
    EXPECT_FALSE(respondsToSetExpired(*tag));
    ObjectClass::registerClass<LocalDraft>("LocalDraft").answers("guid", [](const ManagedObject&) { return Value("computed"); });
    EXPECT_EQ(guidOfObject(*draft), "computed");
}

TEST(EntityMetadataTest, AnEntityMayLackWhatItsClassAnswersWithAnAttribute) {
    NotesStore store;
    const auto context = store.newContext();
    const auto tag = insertObject(*context, "Tag", "t1", {{"name", "n"}});
    ObjectClass& tagClass = ObjectClass::registerClass<Tag>("Tag").adopt(VLKSyncableObject);
    for (const auto name : {VLKSyncableMember::expired, VLKSyncableMember::attributesToNotSerialize,
                            VLKSyncableMember::relationshipsToNotSerialize}) {
        tagClass.answersWithAttribute(name);
        EXPECT_TRUE(tagClass.valueOfMember(name, *tag).isNil());
    }
    EXPECT_FALSE(respondsToSetExpired(*tag));
    EXPECT_TRUE(objectAsJson(*tag)) << "nothing is excluded";

    tagClass.setter(VLKSyncableMember::expired, [](ManagedObject& object, const Value& value) {
        object.setPrimitiveValue("name", Value(value == Value(true) ? "expired" : "living"));
    });
    ASSERT_TRUE(respondsToSetExpired(*tag));
    setExpired(*tag, true);
    EXPECT_EQ(tag->valueForKey("name"), "expired") << "a setter of the class's own needs no attribute";
}

}  // namespace
}  // namespace velkor::test
