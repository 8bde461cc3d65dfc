// Stores of the example host's model: notebooks, notes, tags and attachments take part in sync, drafts do not. `Tag` and
// `Attachment` answer no optional member.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "examples/notes/Model.h"
#include "objectstore/ManagedObject.h"
#include "objectstore/ManagedObjectContext.h"
#include "objectstore/ManagedObjectModel.h"
#include "objectstore/ObjectClass.h"
#include "objectstore/PersistentStoreCoordinator.h"
#include "platform/base/Value.h"
#include "tests/support/TemporaryDirectory.h"

namespace velkor::test {

using notes::Attachment, notes::LocalDraft, notes::Note, notes::Notebook, notes::Tag;

/// A store in a directory of its own, which goes with the object. Registers the classes afresh, so that a test may then add
/// members of its own.
class NotesStore {
public:
    explicit NotesStore(const NS::StoreOptions& options = {},
                        std::shared_ptr<const NS::ManagedObjectModel> model = notes::makeModel());

    std::shared_ptr<NS::ManagedObjectContext> newContext() const;
    const std::shared_ptr<NS::PersistentStoreCoordinator>& coordinator() const { return m_coordinator; }
    const std::filesystem::path& directory() const { return m_directory.path(); }
    /// Renames a table behind the coordinator's back: what needs it cannot be read until it has its name again.
    void renameTable(const std::string& from, const std::string& to) const;

private:
    const TemporaryDirectory m_directory;
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
