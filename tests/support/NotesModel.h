// The model of the example host, for tests: notebooks, notes, tags and attachments take part in sync, drafts do not. `Tag` and
// `Attachment` answer no optional member.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "objectstore/ManagedObject.h"
#include "objectstore/ManagedObjectContext.h"
#include "objectstore/ManagedObjectModel.h"
#include "objectstore/ObjectClass.h"
#include "objectstore/PersistentStoreCoordinator.h"
#include "platform/base/Value.h"

namespace velkor::test {

class Notebook : public NS::ManagedObject {};
class Note : public NS::ManagedObject {};
class Tag : public NS::ManagedObject {};
class Attachment : public NS::ManagedObject {};
class LocalDraft : public NS::ManagedObject {};

/// Registers the classes afresh, so that a test may then add members of its own.
void registerNotesClasses();
std::shared_ptr<const NS::ManagedObjectModel> notesModel();

/// A store of that model in a directory of its own, which goes with the object. Registers the classes.
class NotesStore {
public:
    explicit NotesStore(const NS::StoreOptions& options = {}, std::shared_ptr<const NS::ManagedObjectModel> model = notesModel());
    ~NotesStore();
    NotesStore(const NotesStore&) = delete;
    NotesStore& operator=(const NotesStore&) = delete;

    std::shared_ptr<NS::ManagedObjectContext> newContext() const;
    const std::shared_ptr<NS::PersistentStoreCoordinator>& coordinator() const { return m_coordinator; }
    const std::filesystem::path& directory() const { return m_directory; }
    /// Renames a table behind the coordinator's back: what needs it cannot be read until it has its name again.
    void renameTable(const std::string& from, const std::string& to) const;

private:
    std::filesystem::path m_directory;
    std::shared_ptr<NS::PersistentStoreCoordinator> m_coordinator;
};

using ObjectPointer = std::shared_ptr<NS::ManagedObject>;

/// A new object of the entity with the guid (unless that is empty) and further values.
ObjectPointer insertObject(NS::ManagedObjectContext& context, std::string_view entity, std::string_view guid,
                           const NS::Dictionary& values = {});
/// The object with the guid, or null.
ObjectPointer fetchObject(NS::ManagedObjectContext& context, std::string_view entity, std::string_view guid);
/// The sorted guids of the entity's objects ("(null)" where there is none).
std::vector<std::string> guidsOf(NS::ManagedObjectContext& context, std::string_view entity);
/// The sorted guids of a relationship's destinations, to-one or to-many.
std::vector<std::string> linked(const ObjectPointer& object, std::string_view relationship);

}  // namespace velkor::test
