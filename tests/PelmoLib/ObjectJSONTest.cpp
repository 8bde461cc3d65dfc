#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

#include "PelmoLib/NSManagedObject+JSON.h"
#include "PelmoLib/VLKSyncableObject.h"
#include "PelmoLib/encodings/NSData+Digests.h"
#include "json/CJSONDeserializer.h"
#include "platform/base/Exception.h"
#include "platform/base/Format.h"
#include "platform/base/LocalTime.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NotesModel.h"

namespace velkor::test {
namespace {

using namespace NS;
using testing::ElementsAre;
using testing::IsEmpty;

class ObjectJSONTest : public testing::Test {
protected:
    ObjectJSONTest() {
        ::setenv("TZ", "Europe/Berlin", 1);
        localTimeZoneChanged();
        context = store.newContext();
    }
    ObjectPointer insert(std::string_view entity, std::string_view guid, const Dictionary& values = {}) {
        return insertObject(*context, entity, guid, values);
    }
    static std::string text(const ObjectPointer& object) {
        const auto json = objectAsJson(*object);
        return json ? std::string(json->view()) : "none";
    }
    static void link(const ObjectPointer& object, std::string_view name, std::vector<ObjectPointer> destinations) {
        object->setDestinations(*object->entity().relationshipNamed(name), ObjectSet(std::move(destinations)));
    }

    NotesStore store;
    std::shared_ptr<ManagedObjectContext> context;
};

TEST_F(ObjectJSONTest, WritesAttributesAndRelationshipsInTheEntitysOrder) {
    const auto note = insert("Note", "n1",
                             {{"title", "A \"title\"\n"},
                              {"createdAt", Date(1299254709.75)},
                              {"pinned", true},
                              {"rating", 1},
                              {"score", 0.5},
                              {"lastOpenedAt", Date(0)}});
    link(note, "tags", {insert("Tag", "b"), insert("Tag", "A"), insert("Tag", "c")});
    const auto attachment = insert("Attachment", "f1", {{"content", Data::copyOf("bytes")}, {"byteCount", 5}});
    struct Case {
        std::string name;
        ObjectPointer object;
        std::string json;
    };
    const std::string noAttachments =
        R"("attachments":{"name":"attachments","destination_type":"Attachment","to_many":true,"destination_objects":[]})";
    const Case cases[] = {
        {"values of every kind, without what the class excludes", note,
         R"({"attributes":{"guid":"n1","title":"A \"title\"\n","createdAt":"2011-03-04T17:05:09+0100","pinned":true,"rating":1,"score":0.5},)"
         R"("relationships":{"notebook":{"name":"notebook","destination_type":"Notebook","to_many":false},)"
         R"("tags":{"name":"tags","destination_type":"Tag","to_many":true,"destination_objects":["A","b","c"]},)" +
             noAttachments + "}}"},
        {"no values at all", insert("Tag", ""),
         R"({"attributes":{},"relationships":{"notes":{"name":"notes","destination_type":"Note","to_many":true,"destination_objects":[]}}})"},
        {"no relationships", insert("LocalDraft", "", {{"text", "x"}}), R"({"attributes":{"text":"x"},"relationships":{}})"},
        {"blobs stay out", attachment,
         R"({"attributes":{"guid":"f1","byteCount":5},"relationships":{"note":{"name":"note","destination_type":"Note","to_many":false}}})"},
    };
    for (const Case& expected : cases) EXPECT_EQ(text(expected.object), expected.json) << expected.name;

    note->setValueForKey(insert("Notebook", "k1"), "notebook");
    EXPECT_THAT(text(note),
                testing::HasSubstr(
                    R"("notebook":{"name":"notebook","destination_type":"Notebook","to_many":false,"destination_object":"k1"})"));
    note->setValueForKey(insert("Notebook", ""), "notebook");
    EXPECT_THAT(text(note),
                testing::HasSubstr(R"("notebook":{"name":"notebook","destination_type":"Notebook","to_many":false},)"));
}

TEST_F(ObjectJSONTest, RelationshipDescriptionsAndTheHashFollowTheText) {
    const auto note = insert("Note", "n1");
    link(note, "tags", {insert("Tag", "b"), insert("Tag", "A")});
    note->setValueForKey(insert("Notebook", "k1"), "notebook");
    const auto json = CJSONDeserializer::deserializer().deserializeAsDictionary(*objectAsJson(*note), nullptr);
    ASSERT_TRUE(json);
    for (const auto& entry : *(*json)["relationships"].asDictionary()) {
        EXPECT_EQ(Value(jsonDictionaryForRelationshipNamed(*note, entry.key(), note->entity())), entry.value()) << entry.key();
    }
    EXPECT_THROW(jsonDictionaryForRelationshipNamed(*note, "nothing", note->entity()), Exception);
    EXPECT_EQ(*hashOfJSONData(*note), sha1Hash(*objectAsJson(*note)));
}

TEST_F(ObjectJSONTest, TheClassDecidesWhatIsWrittenAndHow) {
    const auto note = insert("Note", "n1", {{"title", "plain"}});
    ObjectClass::registerClass<Note>("Note")
        .adopt(VLKSyncableObject)
        .answers("relationshipsToNotSerialize",
                 [](const ManagedObject&) {
                     return Value(Array{"tags", "attachments"});
                 })
        .getter("title", [](const ManagedObject& object) { return Value(object.primitiveValue("title").stringOr("") + "!"); });
    EXPECT_EQ(
        text(note),
        R"({"attributes":{"guid":"n1","title":"plain!"},"relationships":{"notebook":{"name":"notebook","destination_type":"Notebook","to_many":false}}})");
}

TEST_F(ObjectJSONTest, LogsOfWritingAndLookingUp) {
    const auto unwritable = insert("Note", "n1", {{"score", std::nan("")}});
    const auto note = insert("Note", "n2");
    const auto tag = insert("Tag", "", {{"name", "no guid"}});
    link(note, "tags", {tag});
    ObjectClass::registerClass<LocalDraft>("NoEntity");
    {
        LogCapture quiet;
        EXPECT_THROW(objectAsJson(*note), AssertionFailure) << "no text with a hole in it is ever made";
    }
    const auto emptyToMany = [](std::string_view name, std::string_view type) {
        return Dictionary{{"name", name}, {"destination_type", type}, {"to_many", true}, {"destination_objects", Array()}};
    };
    const Dictionary form{
        {"attributes", Dictionary{{"guid", "n1"}, {"score", std::nan("")}}},
        {"relationships",
         Dictionary{{"notebook", Dictionary{{"name", "notebook"}, {"destination_type", "Notebook"}, {"to_many", false}}},
                    {"tags", emptyToMany("tags", "Tag")},
                    {"attachments", emptyToMany("attachments", "Attachment")}}}};
    checkLogCases({
        {"a value without JSON form",
         100,
         [&] { EXPECT_FALSE(objectAsJson(*unwritable)); },
         {format("Error serializing object: Could not serialize object '%@'", form)}},
        {"a destination without a guid",
         100,
         [&] { (void)objectAsJson(*note); },
         {format("Attempting to serialize relationship: tags from object n2, but destination has no guid. %@", tag),
          "I will crash now."}},
        {"a class without an entity",
         100,
         [&] { EXPECT_FALSE(objectForGuid(*ObjectClass::forName("NoEntity"), "g", *context)); },
         {"Unable to find entity description for object of type: NoEntity with guid: g"}},
    });
}

TEST_F(ObjectJSONTest, FindsObjectsByTheirGuid) {
    insert("Note", "n1");
    insert("Note", "N1");
    ASSERT_TRUE(context->save().ok());
    insert("Note", "unsaved");
    std::optional<Error> error;
    for (const char* guid : {"n1", "N1", "unsaved"}) {
        const auto found = objectForGuid<Note>(guid, *context, &error);
        ASSERT_TRUE(found) << guid;
        EXPECT_EQ(guidOfObject(*found), guid);
    }
    EXPECT_FALSE(error);
    EXPECT_FALSE(objectForGuid<Note>("n2", *context, &error));
    EXPECT_EQ(error, Error(VelkorErrorDomain, 404));
    EXPECT_FALSE(objectForGuid<Notebook>("n1", *context)) << "of another entity";
    EXPECT_FALSE(objectForGuid<LocalDraft>("n1", *context, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), PlatformErrorDomain) << "the fetch's own error stands";

    ObjectClass::registerClass<Tag>("Tag").entityFinder(
        [](const ManagedObjectContext& ctx) { return ctx.managedObjectModel().entityNamed("Notebook"); });
    EXPECT_EQ(vlk_insertInManagedObjectContext(*ObjectClass::of<Tag>(), *context)->entity().name(), "Notebook")
        << "the class's own answer comes first";
    ObjectClass::registerClass<LocalDraft>("NoEntity");
    EXPECT_THROW(vlk_insertInManagedObjectContext(*ObjectClass::forName("NoEntity"), *context), Exception);
}

TEST_F(ObjectJSONTest, ReadingSetsEveryAttributeThatIsNotExcluded) {
    const auto note = insertIntoMOCFromJSON(*ObjectClass::of<Note>(), *context,
                                            R"({"attributes":{"guid":"n1","title":"t","rating":3,"lastOpenedAt":"2011-03-04"}})");
    EXPECT_EQ(guidOfObject(*note), "n1");
    EXPECT_TRUE(note->valueForKey("lastOpenedAt").isNil()) << "excluded when reading too";
    note->setValueForKey(Date(7), "lastOpenedAt");

    updatePropertiesFromJSON(*note, R"({"attributes":{"unknown":1,"title":"u","guid":"n1"},"relationships":{"tags":7}})");
    EXPECT_EQ(note->valueForKey("title"), "u");
    EXPECT_TRUE(note->valueForKey("rating").isNil()) << "what the text lacks is cleared";
    EXPECT_EQ(note->valueForKey("lastOpenedAt"), Date(7));

    for (const char* broken : {"", "[1]", "{\"attributes\":{\"title\":\"v\"}", "null"}) updatePropertiesFromJSON(*note, broken);
    updatePropertiesFromJSONData(*note, std::nullopt);
    EXPECT_EQ(note->valueForKey("title"), "u") << "text that cannot be parsed changes nothing";

    updatePropertiesFromJSON(*note, "{}");
    EXPECT_TRUE(note->valueForKey("guid").isNil());
    EXPECT_TRUE(note->valueForKey("title").isNil());
    EXPECT_EQ(note->valueForKey("lastOpenedAt"), Date(7));

    const auto attachment = insert("Attachment", "f1", {{"content", Data::copyOf("bytes")}});
    updatePropertiesFromJSON(*attachment, R"({"attributes":{"guid":"f1"}})");
    EXPECT_TRUE(attachment->valueForKey("content").isNil()) << "the blob comes by another way";
}

TEST_F(ObjectJSONTest, ReadingRunsTheHostsSetters) {
    ObjectClass::registerClass<Tag>("Tag").adopt(VLKSyncableObject).setter("name", [](ManagedObject& object, const Value& value) {
        object.setPrimitiveValue("name", Value("<" + value.stringOr("none") + ">"));
    });
    const auto tag = insertIntoMOCFromJSONData(*ObjectClass::of<Tag>(), *context, R"({"attributes":{"guid":"t1","name":"x"}})");
    EXPECT_EQ(tag->valueForKey("name"), "<x>");
    updatePropertiesFromJSON(*tag, R"({"attributes":{"guid":"t1"}})");
    EXPECT_EQ(tag->valueForKey("name"), "<none>");
}

TEST_F(ObjectJSONTest, WhatIsWrittenReadsBackEqual) {
    for (const char* zone : {"Europe/Berlin", "Asia/Kathmandu", "America/St_Johns"}) {
        ::setenv("TZ", zone, 1);
        localTimeZoneChanged();
        const auto note = insert(
            "Note", "n1",
            {{"title", "größer \t\\"}, {"createdAt", Date(1383459600.9)}, {"pinned", false}, {"rating", -7}, {"score", 0.1}});
        const auto copy = insertIntoMOCFromJSON(*ObjectClass::of<Note>(), *context, text(note));
        EXPECT_EQ(copy->valueForKey("createdAt"), Date(1383459600)) << zone << ": only the fraction of a second is lost";
        for (const char* name : {"guid", "title", "pinned", "rating", "score", "body"})
            EXPECT_EQ(copy->valueForKey(name), note->valueForKey(name)) << name;
    }
}

TEST(ObjectJSONConversionTest, AReceivedValueFitsItsAttributeOrClearsIt) {
    ::setenv("TZ", "America/New_York", 1);
    localTimeZoneChanged();
    ModelBuilder builder;
    builder.entity("Typed")
        .attribute("i16", AttributeType::integer16)
        .attribute("i32", AttributeType::integer32)
        .attribute("i64", AttributeType::integer64)
        .attribute("dec", AttributeType::decimal)
        .attribute("dbl", AttributeType::doubleType)
        .attribute("flt", AttributeType::floatType)
        .attribute("str", AttributeType::string)
        .attribute("flag", AttributeType::boolean)
        .attribute("day", AttributeType::date)
        .attribute("blob", AttributeType::binaryData)
        .attribute("any", AttributeType::transformable)
        .attribute("required", AttributeType::string, false, "default");
    NotesStore store({}, builder.build().value());
    const auto context = store.newContext();
    struct Case {
        const char* attribute;
        const char* json;
        Value expected;
        bool misfit = false;
    };
    const Case cases[] = {
        {"i16", "-32768", -32768},
        {"i16", "32768", {}, true},
        {"i16", "2.0", 2},
        {"i16", "2.5", {}, true},
        {"i32", "true", 1},
        {"i32", "\"3\"", {}, true},
        {"i64", "9223372036854775807", 9223372036854775807LL},
        {"i64", "1e30", {}, true},
        {"i64", "null", {}},
        {"dec", "3", Value::decimal("3")},
        {"dec", "0.1", Value::decimal("0.1")},
        {"dec", "12345678901234567890.123456789", Value::decimal("12345678901234567890.123456789")},
        {"dbl", "12345678901234567890.123456789", 12345678901234567890.123456789},
        {"dec", "[]", {}, true},
        {"dbl", "7", 7.0},
        {"dbl", "0.1", 0.1},
        {"dbl", "{}", {}, true},
        {"flt", "1e300", {}, true},
        {"flt", "0.5", 0.5},
        {"str", "\"x\"", "x"},
        {"str", "1", {}, true},
        {"flag", "false", false},
        {"flag", "1", true},
        {"flag", "2", {}, true},
        {"day", "\"2011-03-04T17:05:09+0000\"", Date(1299258309)},
        {"day", "\"2011-03-04T17:05:09Z\"", Date(1299258309 + 5 * 3600)},
        {"day", "\"2011-03-04\"", Date(1299214800)},
        {"day", "\"yesterday\"", {}},
        {"day", "1299258309", {}, true},
        {"blob", "\"AAAA\"", {}, true},
        {"any", "[1,\"a\"]", Array{1, "a"}},
        {"required", "null", "default"},
        {"required", "5", "default", true},
        {"required", "\"own\"", "own"},
    };
    const auto object = context->insertNewObjectForEntityForName("Typed");
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.attribute) + " from " + c.json);
        object->setValueForKey(Value(), c.attribute);
        LogCapture log;
        updatePropertiesFromJSON(*object, std::string("{\"attributes\":{\"") + c.attribute + "\":" + c.json + "}}");
        const Value value = object->valueForKey(c.attribute);
        EXPECT_EQ(value, c.expected) << value.description();
        const bool exactKind = c.expected.kind() == Value::Kind::boolean || c.expected.kind() == Value::Kind::decimal;
        if (exactKind) {
            EXPECT_EQ(value.kind(), c.expected.kind());
        }
        EXPECT_EQ(log.entries().size(), c.misfit ? 1u : 0u);
    }
}

}  // namespace
}  // namespace velkor::test
