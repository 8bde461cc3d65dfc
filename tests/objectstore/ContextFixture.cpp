#include "tests/objectstore/ContextFixture.h"

#include <sqlite3.h>

#include <algorithm>

namespace velkor::test {

using namespace NS;

std::shared_ptr<const ManagedObjectModel> officeModel() {
    ModelBuilder builder;
    builder.entity("Folder")
        .attribute("guid", AttributeType::string)
        .attribute("name", AttributeType::string, false, "untitled")
        .toOne("parent", "Folder", "children")
        .toMany("children", "Folder", "parent", DeleteRule::cascade)
        .toMany("notes", "Note", "folder");
    builder.entity("Note")
        .attribute("guid", AttributeType::string)
        .attribute("title", AttributeType::string)
        .attribute("body", AttributeType::string)
        .attribute("rating", AttributeType::integer16)
        .attribute("score", AttributeType::doubleType)
        .attribute("flag", AttributeType::boolean)
        .toOne("folder", "Folder", "notes")
        .toMany("tags", "Tag", "notes")
        .toMany("related", "Note", "related")
        .toOne("summary", "Summary", "note", DeleteRule::cascade)
        .toMany("readers", "Tag", "");
    builder.entity("Tag")
        .attribute("guid", AttributeType::string)
        .attribute("name", AttributeType::string)
        .toMany("notes", "Note", "tags");
    builder.entity("Summary").attribute("guid", AttributeType::string).toOne("note", "Note", "summary");
    builder.entity("Ledger").attribute("guid", AttributeType::string).toMany("entries", "Entry", "ledger", DeleteRule::deny);
    builder.entity("Entry")
        .attribute("guid", AttributeType::string)
        .attribute("amount", AttributeType::decimal)
        .toOne("ledger", "Ledger", "entries", DeleteRule::nullify, false)
        .toMany("checkers", "Tag", "", DeleteRule::noAction, true);
    auto model = builder.build();
    EXPECT_TRUE(model.ok());
    return std::move(model).value();
}

SaveLog::SaveLog(const ContextRef& context) {
    m_token = NotificationCenter::defaultCenter().addObserver(
        ManagedObjectContextDidSaveNotification, context.get(), nullptr, [this](const Notification& notification) {
            const auto set = [&](std::string_view key) { return *notification.userInfo[key].as<ObjectSet>(); };
            m_saves.push_back({set(InsertedObjectsKey), set(UpdatedObjectsKey), set(DeletedObjectsKey),
                               notification.userInfo[ChangeRecordKey].as<ChangeRecord>()});
        });
}

SaveLog::~SaveLog() { NotificationCenter::defaultCenter().removeObserver(m_token); }

void ContextFixture::reopen(const StoreOptions& options) {
    m_readers.clear();
    m_store.reset();
    auto opened = PersistentStoreCoordinator::open(officeModel(), m_directory / "Office.sqlite", options);
    if (!opened) throw std::runtime_error(opened.error().localizedDescription());
    m_store = std::move(opened).value();
}

ObjectRef ContextFixture::insert(const ContextRef& context, std::string_view entityName, std::string_view guid) {
    auto object = context->insertNewObjectForEntityForName(entityName);
    set(object, "guid", guid);
    return object;
}

std::vector<ObjectRef> ContextFixture::fetch(const ContextRef& context, std::string_view entityName, Predicate predicate) {
    FetchRequest request(context->managedObjectModel().entityNamed(entityName));
    request.predicate = std::move(predicate);
    auto found = context->executeFetchRequest(request);
    if (!found) throw std::runtime_error(found.error().localizedDescription());
    return std::move(found).value();
}

ObjectRef ContextFixture::object(const ContextRef& context, std::string_view entityName, std::string_view guid) {
    const auto found = fetch(context, entityName, Predicate::equal("guid", guid));
    EXPECT_LE(found.size(), 1u) << guid;
    return found.empty() ? nullptr : found.front();
}

ObjectRef ContextFixture::stored(std::string_view entityName, std::string_view guid) {
    m_readers.push_back(newContext());
    return object(m_readers.back(), entityName, guid);
}

void ContextFixture::save(const ContextRef& context) {
    auto saved = context->save();
    ASSERT_TRUE(saved.ok()) << saved.error().localizedDescription();
}

std::string ContextFixture::tamper(const std::string& sql) const {
    sqlite3* raw = nullptr;
    EXPECT_EQ(sqlite3_open((m_directory / "Office.sqlite").c_str(), &raw), SQLITE_OK);
    std::string found;
    const auto take = [](void* place, int, char** values, char**) {
        *static_cast<std::string*>(place) = values[0] ? values[0] : "NULL";
        return 0;
    };
    EXPECT_EQ(sqlite3_exec(raw, sql.c_str(), take, &found, nullptr), SQLITE_OK) << sqlite3_errmsg(raw);
    sqlite3_close(raw);
    return found;
}

const RelationshipDescription& ContextFixture::relationship(const ObjectRef& object, std::string_view name) {
    return *object->entity().relationshipNamed(name);
}

void ContextFixture::add(const ObjectRef& owner, std::string_view name, const ObjectRef& member) {
    owner->addDestination(relationship(owner, name), member);
}

void ContextFixture::remove(const ObjectRef& owner, std::string_view name, const ObjectRef& member) {
    owner->removeDestination(relationship(owner, name), member);
}

std::string guids(const std::vector<ObjectRef>& objects) {
    std::vector<std::string> texts;
    for (const ObjectRef& object : objects) texts.push_back(object->valueForKey("guid").stringOr("nil"));
    std::sort(texts.begin(), texts.end());
    std::string joined;
    for (const std::string& text : texts) joined += (joined.empty() ? "" : " ") + text;
    return joined;
}

std::string guids(const ObjectRef& owner, std::string_view name) {
    const Value value = owner->valueForKey(name);
    if (const auto set = value.as<ObjectSet>()) return guids(*set);
    const auto object = value.as<ManagedObject>();
    return object ? object->valueForKey("guid").stringOr("nil") : "";
}

}  // namespace velkor::test
