#include <sqlite3.h>

#include <functional>

#include "objectstore/ManagedObjectID.h"
#include "tests/objectstore/StoreFixture.h"

namespace velkor::test {

namespace {

using Build = std::function<void(ModelBuilder&)>;

std::shared_ptr<const ManagedObjectModel> model(const Build& build) {
    ModelBuilder builder;
    build(builder);
    return must(builder.build());
}

class MigrationTest : public StoreFixture {
protected:
    /// Opens the file with the model and works on it.
    void with(const Build& build, const std::function<void(StoreSession&, const ManagedObjectModel&)>& work) {
        const auto coordinator = must(tryOpen(model(build)));
        work(*must(coordinator->session()), coordinator->managedObjectModel());
    }
    /// The error text of a migration that cannot be inferred; the file must be as it was.
    std::string refusal(const Build& build) {
        const std::string before = dump();
        auto opened = tryOpen(model(build));
        if (opened) return "opened";
        EXPECT_EQ(opened.error().code(), StoreError::incompatibleModel);
        EXPECT_EQ(dump(), before);
        const std::string text = opened.error().localizedDescription();
        const std::string start = "The store " + m_file.string() + " cannot be migrated: ";
        return text.starts_with(start) ? text.substr(start.size()) : text;
    }
    /// Schema and rows of every table, as text.
    std::string dump() {
        sqlite3* raw = nullptr;
        sqlite3_open_v2(m_file.c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr);
        std::string text;
        const auto collect = [](void* out, int columns, char** values, char**) {
            for (int i = 0; i < columns; ++i)
                *static_cast<std::string*>(out) += std::string(values[i] ? values[i] : "NULL") + '|';
            *static_cast<std::string*>(out) += '\n';
            return 0;
        };
        std::string tables;
        sqlite3_exec(raw, "SELECT sql FROM sqlite_master ORDER BY name; PRAGMA user_version", collect, &text, nullptr);
        sqlite3_exec(
            raw, "SELECT 'SELECT * FROM \"'||name||'\";' FROM sqlite_master WHERE type='table' ORDER BY name",
            [](void* out, int, char** values, char**) {
                *static_cast<std::string*>(out) += values[0];
                return 0;
            },
            &tables, nullptr);
        sqlite3_exec(raw, tables.c_str(), collect, &text, nullptr);
        sqlite3_close(raw);
        return text;
    }
};

TEST_F(MigrationTest, TakesValuesAlong) {
    RowKey first = 0, second = 0;
    with(
        [](ModelBuilder& builder) {
            builder.entity("Item")
                .attribute("guid", AttributeType::string)
                .attribute("dropped", AttributeType::string)
                .attribute("small", AttributeType::integer16)
                .attribute("flag", AttributeType::boolean)
                .attribute("count", AttributeType::integer64)
                .attribute("amount", AttributeType::decimal)
                .attribute("ratio", AttributeType::floatType)
                .attribute("name", AttributeType::string);
        },
        [&](StoreSession& session, const ManagedObjectModel& old) {
            const EntityDescription& item = *old.entityNamed("Item");
            first = insert(session, item,
                           {{"guid", "g"},
                            {"dropped", "d"},
                            {"small", -3},
                            {"flag", true},
                            {"count", INT64_MAX},
                            {"amount", Value::decimal("1.50")},
                            {"ratio", 0.5},
                            {"name", "n"}});
            second = insert(session, item, {});
        });
    with(
        [](ModelBuilder& builder) {
            builder.entity("Item")
                .attribute("added", AttributeType::string)
                .attribute("filled", AttributeType::date, false, Date(7.5))
                .attribute("guid", AttributeType::string)
                .attribute("small", AttributeType::doubleType)
                .attribute("flag", AttributeType::integer32)
                .attribute("count", AttributeType::decimal)
                .attribute("amount", AttributeType::string)
                .attribute("ratio", AttributeType::doubleType)
                .attribute("name", AttributeType::string, false, "unnamed")
                .toOne("group", "Group", "items");
            builder.entity("Group").toMany("items", "Item", "group");
        },
        [&](StoreSession& session, const ManagedObjectModel& now) {
            const EntityDescription& item = *now.entityNamed("Item");
            const auto found = rows(session, item, {first, second});
            ASSERT_EQ(found.size(), 2u);
            EXPECT_EQ(found[0].values, row(item, {{"guid", "g"},
                                                  {"filled", Date(7.5)},
                                                  {"small", -3.0},
                                                  {"flag", 1},
                                                  {"count", Value::decimal("9223372036854775807")},
                                                  {"amount", "1.50"},
                                                  {"ratio", 0.5},
                                                  {"name", "n"}}));
            EXPECT_EQ(found[0].values[column(item, "small")].kind(), Value::Kind::real);
            EXPECT_EQ(found[0].values[column(item, "count")].kind(), Value::Kind::decimal);
            EXPECT_EQ(found[1].values, row(item, {{"filled", Date(7.5)}, {"name", "unnamed"}}));
            const RowKey group = insert(session, *now.entityNamed("Group"), {});
            EXPECT_GT(insert(session, item, {{"filled", Date(1)}, {"name", "x"}, {"group", group}}), second);
            FetchRequest indexed(&item);
            indexed.predicate = Predicate::equal("guid", "g");
            EXPECT_EQ(fetch(session, indexed).size(), 1u);
        });
}

TEST_F(MigrationTest, AddsAndDropsEntitiesAndRelationships) {
    RowKey item = 0, person = 0;
    with(
        [](ModelBuilder& builder) {
            builder.entity("Item")
                .attribute("seen", AttributeType::objectID)
                .toMany("tags", "Tag", "")
                .toMany("people", "Person", "items");
            builder.entity("Tag");
            builder.entity("Person").toMany("items", "Item", "people");
        },
        [&](StoreSession& session, const ManagedObjectModel& old) {
            const EntityDescription& items = *old.entityNamed("Item");
            person = insert(session, *old.entityNamed("Person"), {});
            const RowKey tag = insert(session, *old.entityNamed("Tag"), {});
            item = insert(session, items, {{"seen", std::make_shared<ManagedObjectID>(*old.entityNamed("Person"), person)}});
            ASSERT_OK(session.begin());
            ASSERT_OK(session.link(*items.relationshipNamed("tags"), item, tag));
            ASSERT_OK(session.link(*items.relationshipNamed("people"), item, person));
            ASSERT_OK(session.commit());
        });
    // An inverse is added to tags: the links live on, whichever side the table is named after.
    with(
        [](ModelBuilder& builder) {
            builder.entity("Item").attribute("seen", AttributeType::objectID).toMany("tags", "Tag", "all");
            builder.entity("Tag").toMany("all", "Item", "tags");
        },
        [&](StoreSession& session, const ManagedObjectModel& now) {
            const EntityDescription& items = *now.entityNamed("Item");
            EXPECT_TRUE(rows(session, items, {item}).at(0).values[0].isNil());  // led to an entity that is gone
            std::vector<std::pair<RowKey, RowKey>> links;
            const std::vector<RowKey> owners{1};
            ASSERT_OK(session.destinations(*now.entityNamed("Tag")->relationshipNamed("all"), owners,
                                           [&](RowKey owner, RowKey to) { links.emplace_back(owner, to); }));
            EXPECT_EQ(links, (std::vector<std::pair<RowKey, RowKey>>{{1, item}}));
        });
    // An entity that comes back starts empty and never with a key that was used.
    with(
        [](ModelBuilder& builder) {
            builder.entity("Alpha").toMany("tags", "Tag", "alphas");
            builder.entity("Tag").toMany("alphas", "Alpha", "tags");
        },
        [&](StoreSession& session, const ManagedObjectModel& now) {
            EXPECT_EQ(must(session.count(FetchRequest(now.entityNamed("Tag")))), 1u);
            const std::vector<RowKey> owners{1};
            ASSERT_OK(session.destinations(*now.entityNamed("Tag")->relationshipNamed("alphas"), owners,
                                           [](RowKey, RowKey) { ADD_FAILURE(); }));
        });
    with([](ModelBuilder& builder) { builder.entity("Item"); },
         [&](StoreSession& session, const ManagedObjectModel& now) {
             EXPECT_EQ(must(session.count(FetchRequest(now.entityNamed("Item")))), 0u);
             EXPECT_GT(insert(session, *now.entityNamed("Item"), {}), item);
         });
}

TEST_F(MigrationTest, JoinTableTurnsRound) {
    RowKey a = 0, z = 0;
    with([](ModelBuilder& builder) { builder.entity("Z").toMany("as", "A", ""), builder.entity("A"); },
         [&](StoreSession& session, const ManagedObjectModel& old) {
             insert(session, *old.entityNamed("A"), {});
             a = insert(session, *old.entityNamed("A"), {});
             z = insert(session, *old.entityNamed("Z"), {});
             ASSERT_OK(session.begin());
             ASSERT_OK(session.link(*old.entityNamed("Z")->relationshipNamed("as"), z, a));
             ASSERT_OK(session.commit());
         });
    with([](ModelBuilder& builder) { builder.entity("Z").toMany("as", "A", "zs"), builder.entity("A").toMany("zs", "Z", "as"); },
         [&](StoreSession& session, const ManagedObjectModel& now) {
             const std::vector<RowKey> owners{a}, others{z};
             std::size_t found = 0;
             ASSERT_OK(session.destinations(*now.entityNamed("A")->relationshipNamed("zs"), owners,
                                            [&](RowKey, RowKey to) { found += to == z; }));
             ASSERT_OK(session.destinations(*now.entityNamed("Z")->relationshipNamed("as"), others,
                                            [&](RowKey, RowKey to) { found += to == a; }));
             EXPECT_EQ(found, 2u);
         });
}

TEST_F(MigrationTest, RefusesWhatCannotBeInferredAndLeavesTheFile) {
    with(
        [](ModelBuilder& builder) {
            builder.entity("Item")
                .attribute("text", AttributeType::string)
                .attribute("big", AttributeType::integer64)
                .toOne("other", "Other", "items")
                .toMany("linked", "Other", "");
            builder.entity("Other").toMany("items", "Item", "other");
        },
        [&](StoreSession& session, const ManagedObjectModel& old) {
            insert(session, *old.entityNamed("Item"), {{"text", "5"}});
        });
    const auto changed = [](const std::function<void(ModelBuilder::Entity, ModelBuilder::Entity)>& build) {
        return [build](ModelBuilder& builder) {
            auto item = builder.entity("Item");
            build(item, builder.entity("Other"));
        };
    };
    using Entity = ModelBuilder::Entity;
    EXPECT_EQ(refusal(changed([](Entity item, Entity) { item.attribute("text", AttributeType::integer64); })),
              "Item.text cannot change from string to integer64 without loss.");
    EXPECT_EQ(refusal(changed([](Entity item, Entity) { item.attribute("big", AttributeType::doubleType); })),
              "Item.big cannot change from integer64 to double without loss.");
    EXPECT_EQ(refusal(changed([](Entity item, Entity) { item.attribute("fresh", AttributeType::string, false); })),
              "Item.fresh needs a value, but there are objects without one and it has no default.");
    EXPECT_EQ(refusal(changed([](Entity item, Entity) { item.attribute("big", AttributeType::integer64, false); })),
              "Item.big needs a value, but there are objects without one and it has no default.");
    EXPECT_EQ(refusal(changed([](Entity item, Entity) { item.toOne("text", "Other", ""); })),
              "Item.text was an attribute and is a relationship now.");
    EXPECT_EQ(refusal(changed([](Entity item, Entity) { item.attribute("other", AttributeType::string); })),
              "Item.other was a relationship and is an attribute now.");
    EXPECT_EQ(refusal(changed([](Entity item, Entity) { item.toOne("other", "Item", ""); })),
              "Item.other cannot change its destination.");
    EXPECT_EQ(refusal(changed([](Entity item, Entity) { item.toMany("other", "Other", ""); })),
              "Item.other cannot change between to-one and to-many.");
    EXPECT_EQ(refusal(changed([](Entity item, Entity other) {
                  item.toMany("linked", "Other", "item"), other.toOne("item", "Item", "linked");
              })),
              "Item.linked cannot change between one-to-many and many-to-many.");
    EXPECT_EQ(refusal(changed(
                  [](Entity item, Entity other) { item.toOne("other", "Other", "item"), other.toOne("item", "Item", "other"); })),
              "Item.other cannot become one side of a one-to-one relationship.");
    EXPECT_EQ(refusal(changed([](Entity item, Entity) { item.toOne("other", "Other", "", DeleteRule::nullify, false); })),
              "Item.other needs a value, but there are objects without one and it has no default.");
    StoreOptions options;
    options.migrateAutomatically = false;
    auto opened = tryOpen(model([](ModelBuilder& builder) { builder.entity("Item"); }), options);
    ASSERT_FALSE(opened);
    EXPECT_EQ(opened.error().localizedDescription(), "The store " + m_file.string() + " was made with another object model.");
}

TEST_F(MigrationTest, LinksThatBecomeTheirOwnInverseHoldInBothDirections) {
    const auto related = [&](const ManagedObjectModel& now, StoreSession& session, const std::vector<RowKey>& owners) {
        std::vector<RowKey> found;
        const RelationshipDescription& next = *now.entityNamed("Item")->relationshipNamed("next");
        EXPECT_OK(session.destinations(next, owners, [&](RowKey, RowKey to) { found.push_back(to); }));
        return found;
    };
    RowKey first = 0, second = 0;
    with([](ModelBuilder& builder) { builder.entity("Item").toMany("next", "Item", "back").toMany("back", "Item", "next"); },
         [&](StoreSession& session, const ManagedObjectModel& old) {
             first = insert(session, *old.entityNamed("Item"), {});
             second = insert(session, *old.entityNamed("Item"), {});
             ASSERT_OK(session.begin());
             ASSERT_OK(session.link(*old.entityNamed("Item")->relationshipNamed("next"), first, second));
             ASSERT_OK(session.commit());
             EXPECT_TRUE(related(old, session, {second}).empty());
         });
    with([](ModelBuilder& builder) { builder.entity("Item").toMany("next", "Item", "next"); },
         [&](StoreSession& session, const ManagedObjectModel& now) {
             EXPECT_EQ(related(now, session, {first}), std::vector<RowKey>{second});
             EXPECT_EQ(related(now, session, {second}), std::vector<RowKey>{first});
         });
}

TEST_F(MigrationTest, ReopeningChangesNothingAndNewIdentityAttributesGetTheirIndex) {
    open().reset();
    const std::string before = dump();
    open().reset();
    EXPECT_EQ(dump(), before);
    // The same tables under another identity attribute: only the indices differ.
    Dictionary plist = *m_model->propertyList().asDictionary();
    plist.set("identityAttribute", "title");
    must(tryOpen(must(ManagedObjectModel::modelFromPropertyList(plist)))).reset();
    const std::string after = dump();
    EXPECT_NE(after.find("i_Book.title"), std::string::npos);
    EXPECT_EQ(after.find("i_Book.guid"), std::string::npos);
    EXPECT_NE(after.find("i_Book.author"), std::string::npos);
}

TEST_F(MigrationTest, ProcessWithTheOldModelWritesNoMore) {
    const auto old = open();
    auto session = must(old->session());
    const EntityDescription& book = entity("Book");
    insert(*session, book, {{"pages", 1}});
    Dictionary plist = *m_model->propertyList().asDictionary();
    Array entities = *plist["entities"].asArray();
    entities.push_back(Dictionary{{"name", "More"}});
    plist.set("entities", entities);
    const auto migrated = must(tryOpen(must(ManagedObjectModel::modelFromPropertyList(plist))));
    EXPECT_EQ(codeOf(session->begin()), StoreError::incompatibleModel);
    EXPECT_EQ(must(session->count(FetchRequest(&book))), 1u);
}

TEST_F(MigrationTest, ProcessWithTheOldModelReadsNoColumnThatIsGone) {
    const Build build = [](ModelBuilder& builder) {
        builder.entity("Item").attribute("guid", AttributeType::string).attribute("text", AttributeType::string);
    };
    const auto old = must(tryOpen(model(build)));
    auto session = must(old->session());
    const EntityDescription& item = *old->managedObjectModel().entityNamed("Item");
    insert(*session, item, {{"text", "t"}});
    with([](ModelBuilder& builder) { builder.entity("Item").attribute("guid", AttributeType::string); },
         [](StoreSession&, const ManagedObjectModel&) {});
    const auto read = [&] { return codeOf(session->fetch(FetchRequest(&item), [](StoredRow&&) { ADD_FAILURE(); })); };
    EXPECT_EQ(read(), StoreError::incompatibleModel);
    session = must(old->session());
    EXPECT_EQ(read(), StoreError::incompatibleModel);
}

}  // namespace

}  // namespace velkor::test
