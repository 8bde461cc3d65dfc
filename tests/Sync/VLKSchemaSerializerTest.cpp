#include "Sync/VLKSchemaSerializer.h"

#include <gtest/gtest.h>

#include "PelmoLib/VLKSyncableObject.h"
#include "tests/support/NotesModel.h"

namespace velkor::test {
namespace {

using namespace NS;

TEST(VLKSchemaSerializerTest, DescribesTheSyncableEntities) {
    NotesStore store;
    VLKSchemaSerializer serializer(store.newContext());
    EXPECT_EQ(
        serializer.asJSON(),
        R"([{"name":"Notebook","attributes":[{"name":"guid","type":700},{"name":"title","type":700},{"name":"doNotSynchronize","type":800}]},)"
        R"({"name":"Note","attributes":[{"name":"guid","type":700},{"name":"title","type":700},{"name":"body","type":700},{"name":"createdAt","type":900},)"
        R"({"name":"modifiedAt","type":900},{"name":"pinned","type":800},{"name":"rating","type":200},{"name":"score","type":500},{"name":"expired","type":800},)"
        R"({"name":"lastOpenedAt","type":900}]},{"name":"Tag","attributes":[{"name":"guid","type":700},{"name":"name","type":700}]},)"
        R"({"name":"Attachment","attributes":[{"name":"guid","type":700},{"name":"fileName","type":700},{"name":"contentType","type":700},{"name":"byteCount","type":300},)"
        R"({"name":"content","type":1000},{"name":"thumbnail","type":1000}]}])");
    serializer.setCtx(nullptr);
    EXPECT_EQ(serializer.asJSON(), "[]") << "no context, no entities";
}

TEST(VLKSchemaSerializerTest, AModelWithoutSyncableClassesGivesAnEmptyArray) {
    ModelBuilder builder;
    builder.entity("Unregistered").attribute("guid", AttributeType::string);
    NotesStore store({}, builder.build().value());
    EXPECT_EQ(VLKSchemaSerializer(store.newContext()).asJSON(), "[]");
}

}  // namespace
}  // namespace velkor::test
