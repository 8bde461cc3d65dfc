#include "tests/support/NotesModel.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdlib>

#include "PelmoLib/VLKSyncableObject.h"
#include "platform/base/Exception.h"

namespace velkor::test {

using namespace NS;

void registerNotesClasses() {
    ObjectClass::registerClass<Notebook>("Notebook").adopt(VLKSyncableObject).answersWithAttribute("doNotSynchronize");
    ObjectClass::registerClass<Note>("Note")
        .adopt(VLKSyncableObject)
        .answersWithAttribute("expired")
        .answers("attributesToNotSerialize", [](const ManagedObject&) { return Value(Array{"lastOpenedAt"}); });
    ObjectClass::registerClass<Tag>("Tag").adopt(VLKSyncableObject);
    ObjectClass::registerClass<Attachment>("Attachment").adopt(VLKSyncableObject);
    ObjectClass::registerClass<LocalDraft>("LocalDraft");
}

std::shared_ptr<const ManagedObjectModel> notesModel() {
    ModelBuilder builder;
    builder.entity("Notebook")
        .attribute("guid", AttributeType::string)
        .attribute("title", AttributeType::string)
        .attribute("doNotSynchronize", AttributeType::boolean)
        .toMany("notes", "Note", "notebook");
    builder.entity("Note")
        .attribute("guid", AttributeType::string)
        .attribute("title", AttributeType::string)
        .attribute("body", AttributeType::string)
        .attribute("createdAt", AttributeType::date)
        .attribute("modifiedAt", AttributeType::date)
        .attribute("pinned", AttributeType::boolean)
        .attribute("rating", AttributeType::integer32)
        .attribute("score", AttributeType::doubleType)
        .attribute("expired", AttributeType::boolean)
        .attribute("lastOpenedAt", AttributeType::date)
        .toOne("notebook", "Notebook", "notes")
        .toMany("tags", "Tag", "notes")
        .toMany("attachments", "Attachment", "note", DeleteRule::cascade);
    builder.entity("Tag")
        .attribute("guid", AttributeType::string)
        .attribute("name", AttributeType::string)
        .toMany("notes", "Note", "tags");
    builder.entity("Attachment")
        .attribute("guid", AttributeType::string)
        .attribute("fileName", AttributeType::string)
        .attribute("contentType", AttributeType::string)
        .attribute("byteCount", AttributeType::integer64)
        .attribute("content", AttributeType::binaryData)
        .attribute("thumbnail", AttributeType::binaryData)
        .toOne("note", "Note", "attachments");
    builder.entity("LocalDraft").attribute("text", AttributeType::string);
    auto model = builder.build();
    assertThat(model.ok(), "the notes model is consistent");
    return std::move(model).value();
}

NotesStore::NotesStore(const StoreOptions& options, std::shared_ptr<const ManagedObjectModel> model) {
    registerNotesClasses();
    std::string pattern = (std::filesystem::temp_directory_path() / "velkor-store-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) std::abort();
    m_directory = pattern;
    auto opened = PersistentStoreCoordinator::open(std::move(model), m_directory / "Notes.sqlite", options);
    assertThat(opened.ok(), opened.ok() ? "" : opened.error().description());
    m_coordinator = std::move(opened).value();
}

void NotesStore::renameTable(const std::string& from, const std::string& to) const {
    sqlite3* raw = nullptr;
    sqlite3_open((m_directory / "Notes.sqlite").c_str(), &raw);
    const std::string sql = "PRAGMA legacy_alter_table=ON; ALTER TABLE \"" + from + "\" RENAME TO \"" + to + '"';
    const int code = sqlite3_exec(raw, sql.c_str(), nullptr, nullptr, nullptr);
    sqlite3_close(raw);
    assertThat(code == SQLITE_OK, "A table could not be renamed.");
}

NotesStore::~NotesStore() {
    m_coordinator.reset();
    std::error_code ignored;
    std::filesystem::remove_all(m_directory, ignored);
}

std::shared_ptr<ManagedObjectContext> NotesStore::newContext() const { return ManagedObjectContext::create(m_coordinator); }

ObjectPointer insertObject(ManagedObjectContext& context, std::string_view entity, std::string_view guid,
                           const Dictionary& values) {
    auto object = context.insertNewObjectForEntityForName(entity);
    if (!guid.empty()) object->setValueForKey(guid, "guid");
    for (const auto& entry : values) object->setValueForKey(entry.value(), entry.key());
    return object;
}

ObjectPointer fetchObject(ManagedObjectContext& context, std::string_view entity, std::string_view guid) {
    FetchRequest request(context.managedObjectModel().entityNamed(entity));
    request.predicate = Predicate::equal("guid", guid);
    auto found = context.executeFetchRequest(request);
    EXPECT_TRUE(found.ok());
    return found.ok() && !found.value().empty() ? found.value().front() : nullptr;
}

std::vector<std::string> guidsOf(ManagedObjectContext& context, std::string_view entity) {
    auto found = context.executeFetchRequest(FetchRequest(context.managedObjectModel().entityNamed(entity)));
    EXPECT_TRUE(found.ok());
    std::vector<std::string> guids;
    if (found.ok()) {
        for (const auto& object : found.value()) guids.push_back(object->valueForKey("guid").stringOr("(null)"));
    }
    std::sort(guids.begin(), guids.end());
    return guids;
}

std::vector<std::string> linked(const ObjectPointer& object, std::string_view relationship) {
    const RelationshipDescription* description = object->entity().relationshipNamed(relationship);
    std::vector<std::string> guids;
    if (description->toMany) {
        for (const auto& destination : object->destinations(*description))
            guids.push_back(destination->valueForKey("guid").stringOr("(null)"));
    } else if (const auto destination = object->destination(*description)) {
        guids.push_back(destination->valueForKey("guid").stringOr("(null)"));
    }
    std::sort(guids.begin(), guids.end());
    return guids;
}

}  // namespace velkor::test
