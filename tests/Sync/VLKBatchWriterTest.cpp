#include "Sync/VLKBatchWriter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include "PelmoLib/NSManagedObject+JSON.h"
#include "PelmoLib/VLKMocCreator.h"
#include "Sync/VLKGenericValueTransaction.h"
#include "json/CJSONDeserializer.h"
#include "platform/base/Exception.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NotesModel.h"

namespace velkor::test {
namespace {

using namespace NS;
using testing::ElementsAre;
using testing::IsEmpty;

class VLKBatchWriterTest : public testing::Test {
protected:
    VLKBatchWriterTest() : context(store.newContext()) {}
    void add(const ObjectPointer& object, std::string_view type = "UPDATE_XACTION") {
        const auto transaction = VLKTransaction::transactionOfType(type, object);
        batch.set(*transaction->objGuid(), transaction);
    }
    std::string write() {
        std::string text;
        JSONWriter writer(text);
        bad = VLKBatchWriter().writeTransactions(writer, batch);
        EXPECT_TRUE(writer.ok());
        return text;
    }

    NotesStore store;
    std::shared_ptr<ManagedObjectContext> context;
    VLKTransactionMap batch;
    std::vector<std::string> bad;
};

TEST_F(VLKBatchWriterTest, ABatchIsItsTransactionsUnderTheirKeys) {
    EXPECT_EQ(write(), "{}");
    const auto book = insertObject(*context, "Notebook", "book");
    for (int i = 0; i < 700; ++i) {
        add(insertObject(*context, "Note", "n\"" + std::to_string(i),
                         {{"title", std::string(static_cast<std::size_t>(i % 50), 'x')}, {"notebook", book}}));
        if (i % 50 == 0)
            batch.set("d" + std::to_string(i),
                      VLKTransaction::deleteTransactionForObjectOfType("Note", "d" + std::to_string(i), context));
    }
    batch.set("generic", VLKGenericValueTransaction::genericValueTransactionOfType("UPDATE_XACTION", "a", "prefs", "generic"));
    const std::string text = write();
    EXPECT_THAT(bad, IsEmpty());
    std::string singly = "{";
    for (const auto& [key, transaction] : batch) {
        if (transaction->isGenericValue()) continue;
        if (singly.size() > 1) singly += ',';
        JSONWriter(singly).string(key);
        singly += ':' + transaction->description();
    }
    EXPECT_EQ(text, singly + "}");
}

TEST_F(VLKBatchWriterTest, BadTransactionsAreLeftOutAndTold) {
    add(insertObject(*context, "Note", "good"));
    add(insertObject(*context, "Note", "unwritable", {{"score", std::nan("")}}));
    add(insertObject(*context, "Note", "vanished"));
    context->deleteObject(batch.find("vanished")->second->obj());
    batch.set("undated", VLKTransaction::transactionFromJSONDictionary({}, context));
    batch.set("\xff", VLKTransaction::deleteTransactionForObjectOfType("Note", "g", context));
    batch.set("no UTF-8", VLKTransaction::deleteTransactionForObjectOfType("Note", "\xff", context));
    add(insertObject(*context, "Note", "last"));
    LogCapture log;
    const auto json = CJSONDeserializer::deserializer().deserializeAsDictionary(std::string_view(write()), nullptr);
    ASSERT_TRUE(json);
    EXPECT_EQ(json->size(), 2u);
    EXPECT_TRUE(json->contains("good") && json->contains("last"));
    EXPECT_THAT(bad, ElementsAre("unwritable", "vanished", "undated", "\xff", "no UTF-8"));
    EXPECT_TRUE(log.contains("Object GUID: vanished"));

    const auto holed = insertObject(*context, "Notebook", "holed");
    insertObject(*context, "Note", "", {{"notebook", holed}});
    add(holed);
    EXPECT_THROW(write(), AssertionFailure) << "a relationship with a hole in it stops the process";
}

TEST_F(VLKBatchWriterTest, TheLogTellsTransactionAfterTransaction) {
    add(insertObject(*context, "Tag", "t1"));
    add(insertObject(*context, "Tag", "t2"));
    LogCapture log(400);
    write();
    EXPECT_THAT(log.entries(), ElementsAre("Serializing the transaction for: t1", testing::StartsWith("JSON: "),
                                           testing::StartsWith("Base64 Encoded: "), "Serializing the transaction for: t2",
                                           testing::StartsWith("JSON: "), testing::StartsWith("Base64 Encoded: ")));
}

TEST_F(VLKBatchWriterTest, LoadingBringsObjectsUpToDateWithTheStore) {
    for (const char* guid : {"changed", "deleted", "restored", "same"})
        add(insertObject(*context, "Note", guid, {{"title", "old"}}));
    const auto tag = insertObject(*context, "Tag", "t1");
    batch.set("gone", VLKTransaction::transactionOfType("UPDATE_XACTION", insertObject(*context, "Note", "gone")));
    ASSERT_TRUE(context->save().ok());
    batch.find("restored")->second->setObj(nullptr);
    batch.find("gone")->second->setObj(nullptr);

    const auto other = store.newContext();
    for (const char* guid : {"changed", "restored"}) fetchObject(*other, "Note", guid)->setValueForKey("new", "title");
    const auto changed = fetchObject(*other, "Note", "changed");
    changed->addDestination(*changed->entity().relationshipNamed("tags"), fetchObject(*other, "Tag", "t1"));
    for (const char* guid : {"deleted", "gone"}) other->deleteObject(fetchObject(*other, "Note", guid));
    ASSERT_TRUE(other->save().ok());

    ASSERT_TRUE(VLKBatchWriter::loadObjects(batch).ok());
    auto titleOf = [&](const char* guid) { return batch.find(guid)->second->obj()->valueForKey("title"); };
    EXPECT_EQ(titleOf("changed"), "new");
    EXPECT_EQ(titleOf("restored"), "new");
    EXPECT_EQ(titleOf("same"), "old");
    EXPECT_THAT(linked(batch.find("changed")->second->obj(), "tags"), ElementsAre("t1"));
    EXPECT_FALSE(batch.find("deleted")->second->obj());
    EXPECT_FALSE(batch.find("gone")->second->obj());
}

TEST_F(VLKBatchWriterTest, WhatCannotBeReadIsNotTakenForGone) {
    const auto note = insertObject(*context, "Note", "n");
    note->addDestination(*note->entity().relationshipNamed("tags"), insertObject(*context, "Tag", "t"));
    ASSERT_TRUE(context->save().ok());
    for (const char* table : {"e_Note", "e_Tag"}) {
        for (const bool resolved : {false, true}) {
            SCOPED_TRACE(testing::Message() << table << (resolved ? ", resolved" : ", not resolved"));
            const auto own = store.newContext();
            const auto transaction = VLKTransaction::transactionOfType("UPDATE_XACTION", "Note", "n", own);
            if (resolved) transaction->setObj(fetchObject(*own, "Note", "n"));
            batch.set("n", transaction);
            store.renameTable(table, "away");
            EXPECT_FALSE(VLKBatchWriter::loadObjects(batch).ok());
            store.renameTable("away", table);
            EXPECT_TRUE(VLKBatchWriter::loadObjects(batch).ok());
            EXPECT_THAT(linked(transaction->obj(), "tags"), ElementsAre("t"));
        }
    }
}

}  // namespace
}  // namespace velkor::test
