#include <fstream>

#include "objectstore/ManagedObjectModel.h"
#include "platform/persistence/PropertyList.h"
#include "tests/objectstore/StoreFixture.h"

namespace velkor::test {

namespace {

class ModelTest : public StoreFixture {};

std::string problemOf(ModelBuilder& builder) {
    auto built = builder.build();
    return built ? "" : built.error().localizedDescription();
}

TEST_F(ModelTest, BuilderResolvesWhatBelongsTogether) {
    const EntityDescription& book = entity("Book");
    EXPECT_EQ(book.index(), 1u);
    EXPECT_EQ(book.managedObjectClassName(), "Book");
    const RelationshipDescription& author = *book.relationshipNamed("author");
    EXPECT_EQ(author.destination, &entity("Author"));
    EXPECT_EQ(author.inverse, entity("Author").relationshipNamed("books"));
    EXPECT_EQ(author.inverse->inverse, &author);
    EXPECT_FALSE(author.inverse->manyToMany());
    EXPECT_TRUE(book.relationshipNamed("tags")->manyToMany());
    EXPECT_TRUE(book.relationshipNamed("readers")->manyToMany());
    EXPECT_EQ(book.relationshipNamed("related")->inverse, book.relationshipNamed("related"));
    EXPECT_EQ(book.attributeNamed("pages")->index, 3u);
    EXPECT_EQ(book.attributeNamed("author"), nullptr);
    EXPECT_EQ(m_model->entityNamed("book"), nullptr);
    EXPECT_EQ(m_model->identityAttribute(), "guid");
}

TEST_F(ModelTest, BuilderRefusesWhatDoesNotFit) {
    const auto refused = [](const std::function<void(ModelBuilder&)>& build) {
        ModelBuilder builder;
        build(builder);
        return problemOf(builder);
    };
    const std::string start = "The object model is invalid: ";
    EXPECT_EQ(refused([](auto& b) { b.entity("A b"); }), start + "the entity A b has no proper name.");
    EXPECT_EQ(refused([](auto& b) { b.entity("A"), b.entity("a"); }), start + "the entity a is there twice.");
    EXPECT_EQ(refused([](auto& b) { b.entity("A").attribute("1", AttributeType::string); }), start + "A.1 has no proper name.");
    EXPECT_EQ(refused([](auto& b) { b.entity("A").attribute("x\"", AttributeType::string); }),
              start + "A.x\" has no proper name.");
    EXPECT_EQ(refused([](auto& b) { b.entity("A").attribute("x", AttributeType::string).toOne("X", "A", ""); }),
              start + "A.X is there twice.");
    EXPECT_EQ(refused([](auto& b) { b.entity("A").toOne("x", "B", ""); }), start + "A.x leads to B, which does not exist.");
    EXPECT_EQ(refused([](auto& b) { b.entity("A").toOne("x", "A", "y"); }),
              start + "A.x has the inverse A.y, which does not exist.");
    EXPECT_EQ(refused([](auto& b) { b.entity("A").toOne("x", "A", "y").toOne("y", "A", ""); }),
              start + "A.x has the inverse A.y, whose inverse it is not.");
    EXPECT_EQ(refused([](auto& b) { b.entity("A").attribute("x", AttributeType::integer16, true, 70000); }),
              start + "A.x has a default value that is not a whole number of 16 bits.");
    EXPECT_EQ(refused([](auto& b) { b.entity("A").className(""); }), start + "the entity A has no class name.");
    EXPECT_EQ(refused([](auto& b) { b.identityAttribute(""); }), start + "the identity attribute has no proper name.");
    EXPECT_EQ(refused([](auto& b) { b.entity("M\xC3\xBCller").attribute("_1", AttributeType::string); }), "");
}

TEST_F(ModelTest, PropertyListKeepsEverything) {
    ModelBuilder builder;
    builder.identityAttribute("uuid");
    builder.entity("Plain");
    builder.entity("Full")
        .className("SharedClass")
        .attribute("price", AttributeType::decimal, false, Value::decimal("0.10"))
        .attribute("when", AttributeType::date, true, Date(1.25))
        .attribute("bytes", AttributeType::binaryData, true, Data::copyOf("xyz"))
        .attribute("list", AttributeType::transformable, true, Array{1, "two"})
        .attribute("flag", AttributeType::boolean, false, false)
        .attribute("number", AttributeType::integer64, true, -5)
        .attribute("real", AttributeType::doubleType, true, 0.5)
        .attribute("text", AttributeType::string, true, "a<b>&")
        .attribute("any", AttributeType::undefined)
        .attribute("id", AttributeType::objectID)
        .attribute("float", AttributeType::floatType)
        .attribute("small", AttributeType::integer16)
        .attribute("middle", AttributeType::integer32)
        .toOne("parent", "Full", "children", DeleteRule::noAction, false)
        .toMany("children", "Full", "parent", DeleteRule::cascade)
        .toMany("plain", "Plain", "", DeleteRule::deny);
    const auto built = must(builder.build());

    const std::filesystem::path file = m_directory / "Test.momd";
    std::ofstream(file) << must(propertyListXML(built->propertyList()));
    const auto read = must(ManagedObjectModel::modelWithContentsOfFile(file));
    EXPECT_EQ(read->propertyList(), built->propertyList());
    EXPECT_EQ(read->identityAttribute(), "uuid");
    const EntityDescription& full = *read->entityNamed("Full");
    EXPECT_EQ(full.managedObjectClassName(), "SharedClass");
    for (const AttributeDescription& attribute : built->entityNamed("Full")->attributes()) {
        const AttributeDescription& copy = full.attributes()[attribute.index];
        EXPECT_EQ(copy.name, attribute.name);
        EXPECT_EQ(copy.type, attribute.type);
        EXPECT_EQ(copy.optional, attribute.optional);
        EXPECT_EQ(copy.defaultValue.kind(), attribute.defaultValue.kind()) << attribute.name;
        EXPECT_EQ(copy.defaultValue, attribute.defaultValue) << attribute.name;
    }
    EXPECT_EQ(full.relationshipNamed("children")->deleteRule, DeleteRule::cascade);
    EXPECT_EQ(full.relationshipNamed("parent")->deleteRule, DeleteRule::noAction);
    EXPECT_FALSE(full.relationshipNamed("parent")->optional);
    EXPECT_EQ(full.relationshipNamed("parent")->inverse, full.relationshipNamed("children"));
}

TEST_F(ModelTest, PropertyListsThatAreNoModelsAreRefused) {
    const auto entity = [](Dictionary extra) {
        Dictionary plist{{"name", "A"}};
        for (const auto& [key, value] : extra) plist.set(key, value);
        return Value(Dictionary{{"entities", Array{plist}}});
    };
    const auto attribute = [&](Dictionary plist) { return entity({{"attributes", Array{plist}}}); };
    const std::pair<Value, std::string> cases[] = {
        {"text", "its property list is not a dictionary"},
        {Dictionary{}, "its property list lacks the key entities"},
        {Dictionary{{"entities", 1}}, "its property list has no array under entities"},
        {Dictionary{{"entities", Array{1}}}, "entity 1 is not a dictionary"},
        {Dictionary{{"entities", Array{Dictionary{}}}}, "entity 1 lacks the key name"},
        {Dictionary{{"entities", Array{Dictionary{{"name", "A"}}, Dictionary{{"name", "A"}}}}}, "an entity is there twice"},
        {entity({{"super", "B"}}), "entity 1 has the unknown key super"},
        {attribute({{"name", "x"}}), "an attribute of A lacks the key type"},
        {attribute({{"name", "x"}, {"type", "text"}}), "an attribute of A has the unknown type text"},
        {attribute({{"name", "x"}, {"type", "string"}, {"optional", 1}}), "an attribute of A has no boolean under optional"},
        {attribute({{"name", "x"}, {"type", "transformable"}, {"default", Data::copyOf("x")}}),
         "an attribute of A has a default that is no archive"},
        {attribute({{"name", "x"}, {"type", "decimal"}, {"default", "1,5"}}),
         "A.x has a default value that is not a decimal number"},
        {entity({{"relationships", Array{Dictionary{{"name", "x"}, {"destination", "A"}, {"deleteRule", "keep"}}}}}),
         "a relationship of A has the unknown delete rule keep"},
    };
    for (const auto& [plist, problem] : cases) {
        auto read = ManagedObjectModel::modelFromPropertyList(plist);
        ASSERT_FALSE(read) << problem;
        EXPECT_EQ(read.error().localizedDescription(), "The object model is invalid: " + problem + ".");
    }
    EXPECT_FALSE(ManagedObjectModel::modelWithContentsOfFile(m_directory / "missing.momd"));
}

}  // namespace

}  // namespace velkor::test
