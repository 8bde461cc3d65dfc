#include "tests/support/NotesModel.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>

#include "platform/base/Exception.h"

namespace velkor::test {

using namespace NS;

NotesStore::NotesStore(const StoreOptions& options, std::shared_ptr<const ManagedObjectModel> model) {
    notes::registerClasses();
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
