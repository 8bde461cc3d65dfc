#include "Sync/VLKTransaction.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "PelmoLib/NSManagedObject+JSON.h"
#include "PelmoLib/VLKMocCreator.h"
#include "PelmoLib/VLKSyncableObject.h"
#include "PelmoLib/encodings/NSDate+Utils.h"
#include "Sync/VLKGenericValueTransaction.h"
#include "json/CJSONDeserializer.h"
#include "json/CJSONSerializer.h"
#include "platform/base/Exception.h"
#include "platform/base/LocalTime.h"
#include "tests/Sync/ReceivedTransactions.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NotesModel.h"

namespace velkor::test {
namespace {

using namespace NS;
using testing::ElementsAre;

class VLKTransactionTest : public testing::Test {
protected:
    VLKTransactionTest() {
        ::setenv("TZ", "America/Denver", 1);
        localTimeZoneChanged();
        context = store.newContext();
        note = insertObject(*context, "Note", "n1", {{"title", "t"}});
        EXPECT_TRUE(context->save().ok());
    }
    static Dictionary wire(VLKTransaction& transaction) {
        const auto json = transaction.objectAsJson();
        return json ? CJSONDeserializer::deserializer().deserializeAsDictionary(*json, nullptr).value_or(Dictionary())
                    : Dictionary();
    }

    NotesStore store;
    std::shared_ptr<ManagedObjectContext> context;
    ObjectPointer note;
};

TEST_F(VLKTransactionTest, TheWireFormNamesTheChangeAndCarriesTheObject) {
    const auto insert = VLKTransaction::transactionOfType("INSERT_XACTION", note);
    EXPECT_LT(Date::now().timeIntervalSinceDate(*insert->date()), 60);
    insert->setDate(Date(1362495600.5));
    const Dictionary sent = wire(*insert);
    EXPECT_EQ(sent.size(), 5u);
    EXPECT_EQ(sent["xaction_time"], "2013-03-05T08:00:00-0700");
    EXPECT_EQ(sent["xaction_type"], "INSERT_XACTION");
    EXPECT_EQ(sent["xaction_object_type"], "Note");
    EXPECT_EQ(sent["xaction_object_guid"], "n1");
    const std::string payload = sent["xaction_object"].stringOr("");
    EXPECT_EQ(payload, payloadOf(objectAsJson(*note)->view()));
    EXPECT_EQ(insert->description(), insert->objectAsJson()->view());

    // What comes back with one more character at each end is what was sent; without them it is not.
    for (const std::string& wrapped : {"\"" + payload + "\"", "é" + payload + "x"}) {
        EXPECT_EQ(VLKTransaction::dataFromCompressedTransactionObjectData(wrapped), objectAsJson(*note));
        EXPECT_EQ(Value(*VLKTransaction::dictionaryFromCompressedTransactionObjectData(wrapped)),
                  CJSONDeserializer::deserializer().deserialize(*objectAsJson(*note), nullptr));
    }
    EXPECT_NE(VLKTransaction::dataFromCompressedTransactionObjectData(payload), objectAsJson(*note));

    const auto deletion = VLKTransaction::deleteTransactionForObjectOfType("Note", "n2", context);
    deletion->setDate(Date(0));
    EXPECT_EQ(
        deletion->objectAsJson()->view(),
        R"({"xaction_time":"1969-12-31T17:00:00-0700","xaction_type":"DELETE_XACTION","xaction_object_type":"Note","xaction_object_guid":"n2"})");

    const auto draft =
        VLKTransaction::transactionOfType("UPDATE_XACTION", context->insertNewObjectForEntityForName("LocalDraft"));
    EXPECT_FALSE(wire(*draft).contains("xaction_object_guid"));
    EXPECT_TRUE(wire(*draft).contains("xaction_object"));

    Value collection = Array{insert, deletion};
    EXPECT_EQ(CJSONSerializer::serializer().serializeObject(collection, nullptr),
              "[" + insert->description() + "," + deletion->description() + "]");
}

TEST_F(VLKTransactionTest, WhatIsMissingRaisesAtSerialisation) {
    struct Case {
        const char* what;
        std::function<void(VLKTransaction&)> spoil;
    };
    const Case cases[] = {
        {"date", [](VLKTransaction& t) { t.setDate(std::nullopt); }},
        {"type", [](VLKTransaction& t) { t.setType(std::nullopt); }},
        {"class", [](VLKTransaction& t) { t.setObjType(std::nullopt); }},
        {"object", [](VLKTransaction& t) { t.setObj(nullptr), t.setObjGuid("unknown"); }},
        {"object of an unknown class", [](VLKTransaction& t) { t.setObj(nullptr), t.setObjType("Unknown"); }},
        {"deleted object", [&](VLKTransaction& t) { context->deleteObject(t.obj()); }},
    };
    LogCapture quiet(0);
    for (const Case& c : cases) {
        const auto transaction = VLKTransaction::transactionOfType("UPDATE_XACTION", note);
        c.spoil(*transaction);
        try {
            transaction->objectAsJson();
            ADD_FAILURE() << c.what;
        } catch (const Exception& exception) {
            EXPECT_EQ(exception.name(), InvalidArgumentException) << c.what;
        }
    }
    const auto odd = VLKTransaction::deleteTransactionForObjectOfType("Note", "\xff", context);
    EXPECT_FALSE(odd->objectAsJson()) << "no UTF-8";
}

TEST_F(VLKTransactionTest, PayloadsDecodeOrFailByTheirText) {
    const std::string good = payloadOf("{\"a\":1}");
    struct Case {
        const char* what;
        std::string text;
        std::optional<std::string> data;
    };
    const Case cases[] = {
        {"wrapped", "x" + good + "y", "{\"a\":1}"},
        {"white space in it", "x" + good.substr(0, 5) + " \n" + good.substr(5) + "y", "{\"a\":1}"},
        {"wrapped in characters of two and three bytes", "ß" + good + "€", "{\"a\":1}"},
        {"no wrapping", "x", std::nullopt},
        {"nothing inside", "xy", ""},
        {"one character of two code units", "😀", ""},
        {"half a character is cut off", "😀" + good + "x", std::nullopt},
        {"half a character is cut off at the end", "x" + good + "😀", std::nullopt},
        {"no base64", "x!!!!y", std::nullopt},
        {"no zlib stream", "xQUJDy", std::nullopt},
        {"cut stream", "x" + good.substr(0, 8) + "y", std::nullopt},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        if (std::string_view(c.what) == "no wrapping") {
            EXPECT_THROW(VLKTransaction::dataFromCompressedTransactionObjectData(c.text), Exception);
            continue;
        }
        const auto data = VLKTransaction::dataFromCompressedTransactionObjectData(c.text);
        EXPECT_EQ(data ? std::optional(std::string(data->view())) : std::nullopt, c.data);
        EXPECT_EQ(VLKTransaction::dictionaryFromCompressedTransactionObjectData(c.text).has_value(), c.data == "{\"a\":1}");
    }
    for (std::optional<std::string_view> text :
         {std::optional<std::string_view>(""), std::optional<std::string_view>("ß"), std::optional<std::string_view>()}) {
        try {
            VLKTransaction::dictionaryFromCompressedTransactionObjectData(text);
            ADD_FAILURE() << text.value_or("nil");
        } catch (const Exception& exception) {
            EXPECT_EQ(exception.name(), text ? RangeException : InvalidArgumentException);
        }
    }
}

TEST_F(VLKTransactionTest, ObjectsAreFoundByGuidWhenNeeded) {
    const auto insert = VLKTransaction::transactionOfType("UPDATE_XACTION", note);
    EXPECT_EQ(insert->obj(), note);
    EXPECT_EQ(insert->ctx(), context);
    insert->setObj(nullptr);
    EXPECT_EQ(insert->obj(), note);

    const auto deletion = VLKTransaction::deleteTransactionForObjectOfType("Note", "n1", context);
    EXPECT_FALSE(deletion->obj()) << "a deletion looks nothing up";

    const auto early = VLKTransaction::transactionFromJSONDictionary(received("UPDATE_XACTION", "Note", "late"), context);
    EXPECT_FALSE(early->obj());
    const auto late = insertObject(*context, "Note", "late");
    EXPECT_EQ(early->obj(), late) << "a failed look-up is tried again";
    context->deleteObject(late);
    EXPECT_FALSE(early->obj());

    EXPECT_FALSE(insert->objectHasBlobs());
    EXPECT_TRUE(
        VLKTransaction::transactionOfType("INSERT_XACTION", insertObject(*context, "Attachment", "f1"))->objectHasBlobs());
    LogCapture quiet;
    EXPECT_FALSE(
        VLKTransaction::transactionFromJSONDictionary(received("INSERT_XACTION", "Unknown", "g"), context)->objectHasBlobs());
}

TEST_F(VLKTransactionTest, ReceivedTransactionsTakeWhatIsThere) {
    const auto whole = VLKTransaction::transactionFromJSONDictionary(received("EXPIRED_XACTION", "Note", "n1"), context);
    EXPECT_TRUE(whole->replayableTransaction());
    EXPECT_FALSE(whole->date());
    EXPECT_EQ(whole->type(), "EXPIRED_XACTION");
    EXPECT_EQ(whole->objType(), "Note");
    EXPECT_EQ(whole->objGuid(), "n1");
    EXPECT_FALSE(whole->isGenericValue());

    LogCapture log;
    const auto spoilt =
        VLKTransaction::transactionFromJSONDictionary(Dictionary{{"xaction_type", 5}, {"xaction_object_guid", Null()}}, context);
    EXPECT_FALSE(spoilt->type() || spoilt->objType() || spoilt->objGuid());
    EXPECT_EQ(log.entries().size(), 2u) << "one for each value of a wrong type";

    Dictionary generic = received("UPDATE_XACTION", "GENERIC_OBJECT", "u_prefs_a.b");
    generic.set("xaction_key_path", "a.b");
    generic.set("xaction_generic_object_id", "prefs");
    const auto value =
        std::dynamic_pointer_cast<VLKGenericValueTransaction>(VLKTransaction::transactionFromJSONDictionary(generic, context));
    ASSERT_TRUE(value);
    EXPECT_EQ(value->keyPath(), "a.b");
    EXPECT_EQ(value->genericObjectId(), "prefs");
    EXPECT_EQ(value->objGuid(), "u_prefs_a.b");
    EXPECT_TRUE(value->replayableTransaction());
    EXPECT_THROW(value->replayIntoMOC(*context), AssertionFailure);
    EXPECT_NO_THROW(value->replayRelationshipsIntoMOC(*context));
    EXPECT_THROW(value->objectAsJson(), AssertionFailure);
}

TEST_F(VLKTransactionTest, ArchivesKeepWhatIsNeededToGoOn) {
    VLKTransaction::registerArchivableClasses();
    VLKMocCreator::sharedInstanceWithCreatorBlock([this] { return store.newContext(); })->setCtx(context);
    const auto update = VLKTransaction::transactionOfType("UPDATE_XACTION", note);
    update->setHistorySequence(42);
    const auto arrived = VLKTransaction::transactionFromJSONDictionary(received("INSERT_XACTION", "Note", "n1", "{}"), context);
    const auto generic =
        VLKGenericValueTransaction::genericValueTransactionOfType("DELETE_XACTION", "a.b", "prefs", "u_prefs_a.b");
    const auto archive = archivedDataWithRootObject(Dictionary{{"update", update}, {"arrived", arrived}, {"generic", generic}});
    const auto restored = unarchiveObjectWithData(archive.view());
    ASSERT_TRUE(restored.ok());
    const Dictionary& root = *restored.value().asDictionary();

    const auto first = root["update"].as<VLKTransaction>();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->date(), update->date());
    EXPECT_EQ(first->type(), "UPDATE_XACTION");
    EXPECT_EQ(first->objType(), "Note");
    EXPECT_EQ(first->objGuid(), "n1");
    EXPECT_FALSE(first->replayableTransaction());
    EXPECT_EQ(first->historySequence(), 42);
    EXPECT_EQ(first->ctx(), context);
    EXPECT_EQ(first->obj(), note) << "found again by its guid";

    const auto second = root["arrived"].as<VLKTransaction>();
    EXPECT_TRUE(second->replayableTransaction());
    EXPECT_FALSE(second->date());
    EXPECT_THROW(second->replayIntoMOC(*context), Exception) << "its payload is not archived";

    const auto third = root["generic"].as<VLKGenericValueTransaction>();
    ASSERT_TRUE(third);
    EXPECT_EQ(third->type(), "DELETE_XACTION");
    EXPECT_EQ(third->objType(), "GENERIC_OBJECT");
    EXPECT_EQ(third->objGuid(), "u_prefs_a.b");
    EXPECT_EQ(third->keyPath(), "a.b");
    EXPECT_EQ(third->genericObjectId(), "prefs");
    EXPECT_LT(Date::now().timeIntervalSinceDate(*third->date()), 60);
    VLKMocCreator::dropSharedInstance();

    struct Sequential : Coder {
        bool allowsKeyedCoding() const override { return false; }
        void encodeObject(const Value&, std::string_view) override { FAIL() << "nothing is written"; }
        void encodeBool(bool, std::string_view) override {}
        void encodeInt64(std::int64_t, std::string_view) override {}
        Value decodeObject(std::string_view) const override { return {}; }
        bool decodeBool(std::string_view) const override { return false; }
        std::int64_t decodeInt64(std::string_view) const override { return 0; }
    } sequential;
    for (const std::shared_ptr<VLKTransaction>& transaction : {update, std::static_pointer_cast<VLKTransaction>(generic)}) {
        try {
            transaction->encodeWithCoder(sequential);
            ADD_FAILURE();
        } catch (const AssertionFailure& failure) {
            EXPECT_EQ(failure.reason(), "[aCoder allowsKeyedCoding]");
        }
    }
}

TEST_F(VLKTransactionTest, Logs) {
    const auto update = VLKTransaction::transactionOfType("UPDATE_XACTION", note);
    const auto vanished = VLKTransaction::transactionOfType("UPDATE_XACTION", note);
    vanished->setObj(nullptr);
    vanished->setObjGuid("gone");
    const std::string json(objectAsJson(*note)->view());
    checkLogCases({
        {"made",
         300,
         [&] { VLKTransaction::transactionOfType("UPDATE_XACTION", note); },
         {"-[VLKTransaction initWithType:forObject:]"}},
        {"made for a deletion",
         300,
         [&] { VLKTransaction::deleteTransactionForObjectOfType("Note", "g", context); },
         {"-[VLKTransaction initDeleteTransactionForObjectOfType:withGuid:inContext:]"}},
        {"serialised", 300, [&] { update->objectAsJson(); }, {"Serializing the transaction for: n1"}},
        {"dumped", 400, [&] { update->objectAsJson(); }, {"JSON: " + json, "Base64 Encoded: " + payloadOf(json)}},
        {"dumped without object", 400, [&] { vanished->objectAsJson(); }, {"JSON: (null)", "Base64 Encoded: (null)"}},
        {"without object",
         100,
         [&] { vanished->objectAsJson(); },
         {"Warning: the object is nil. This will probably crash!",
          "I'm about to crash... but here's some additional info to help you figure out why!", "Object GUID: gone",
          "Transaction type: UPDATE_XACTION", "The type of object I think I'm serializing: Note"}},
        {"asked for blobs", 300, [&] { update->objectHasBlobs(); }, {"(VLKTransaction) Checking if object has blobs..."}},
    });
}

}  // namespace
}  // namespace velkor::test
