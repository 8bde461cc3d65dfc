#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "objectstore/ChangeRecord.h"
#include "objectstore/FetchRequest.h"
#include "objectstore/ManagedObject.h"
#include "objectstore/ObjectSet.h"
#include "objectstore/PersistentStoreCoordinator.h"
#include "platform/base/Export.h"
#include "platform/base/Object.h"
#include "platform/base/Result.h"

namespace velkor::NS {

struct ContextState;
struct Notification;

/// Posted on the saving thread after a save's commit, the context's state already final; the sender is the context.
inline constexpr std::string_view ManagedObjectContextDidSaveNotification = "NSManagedObjectContextDidSaveNotification";
// Keys of its user info: ObjectSets (live objects, valid on the saving thread during the call) and the ChangeRecord.
inline constexpr std::string_view InsertedObjectsKey = "inserted";
inline constexpr std::string_view UpdatedObjectsKey = "updated";
inline constexpr std::string_view DeletedObjectsKey = "deleted";
inline constexpr std::string_view ChangeRecordKey = "changeRecord";

/// Confinement: used by the thread that made it. Main queue: by the main thread. Private queue: by whichever thread runs the
/// queue that owns it, one at a time (not asserted).
enum class ConcurrencyType { confinement, privateQueue, mainQueue };

/// How a save treats rows that somebody changed since they were read.
enum class MergePolicy {
    error,       // the save fails, nothing is written
    storeWins,   // the row's values replace the object's in conflict
    objectWins,  // the object's changed properties are written, the others follow the row
};

/// A working copy of a store: objects by identity, unsaved changes, fetches, saves. Unchanged objects live as long as somebody
/// holds them; changed ones are held until they are saved, rolled back or reset. Debug builds assert the confinement. Where an
/// operation that returns no Result has to read the store and cannot, it raises StoreReadFailure: deleting, refreshing, merging,
/// and any access to a fault or to relationships that are not loaded.
class VELKOR_EXPORT ManagedObjectContext : public Object {
public:
    static std::shared_ptr<ManagedObjectContext> create(std::shared_ptr<PersistentStoreCoordinator> coordinator,
                                                        ConcurrencyType type = ConcurrencyType::confinement);
    ~ManagedObjectContext() override;

    const std::shared_ptr<PersistentStoreCoordinator>& persistentStoreCoordinator() const noexcept;
    const ManagedObjectModel& managedObjectModel() const noexcept;
    ConcurrencyType concurrencyType() const noexcept;
    MergePolicy mergePolicy() const noexcept;
    void setMergePolicy(MergePolicy policy) noexcept;
    /// Name that history rows of this context's saves carry; empty at creation.
    const std::string& author() const noexcept;
    void setAuthor(std::string author);

    /// A new object of the entity's class (ManagedObject itself when that class is not registered), default values set. An
    /// entity that the store does not have raises the invalid-argument exception.
    std::shared_ptr<ManagedObject> insertNewObject(const EntityDescription& entity);
    std::shared_ptr<ManagedObject> insertNewObjectForEntityForName(std::string_view name);
    /// Applies the delete rules at once; a denied deletion fails the save.
    void deleteObject(const std::shared_ptr<ManagedObject>& object);

    /// Objects that fulfil the request, the context's unsaved work included. Objects without unsaved changes are brought up to
    /// date with their rows.
    Result<std::vector<std::shared_ptr<ManagedObject>>> executeFetchRequest(const FetchRequest& request);
    Result<std::size_t> countForFetchRequest(const FetchRequest& request);
    /// The values of the named attributes, and the keys of named to-one relationships, of each match without making objects;
    /// unsaved work is not seen. The span is valid in the call.
    Result<void> enumerateValues(const FetchRequest& request, std::span<const std::string> attributes,
                                 const std::function<void(std::span<const Value>)>& handle);

    /// Loads all objects of the entity whose attribute has one of the values, in one fetch, and remembers which values have none:
    /// until the next save, rollback, reset or merge, or until an object is refreshed without its changes or permanent
    /// identifiers are obtained, fetches of the form "attribute == value" for these values are answered from memory, unsaved work
    /// included. The result holds the objects, so that they stay.
    Result<ObjectSet> preloadObjects(const EntityDescription& entity, const AttributeDescription& attribute, const Array& values);
    /// Loads the relationship's destinations of all the objects in one scan (and the destination objects in one more).
    Result<void> prefetchRelationship(const std::vector<std::shared_ptr<ManagedObject>>& objects,
                                      const RelationshipDescription& relationship);
    /// Lets go of what the two calls above keep in memory, as the next save or merge would.
    void forgetPreloaded();
    /// Brings these objects up to date with their rows, one fetch an entity; unsaved changes stay. Objects whose rows are gone
    /// become deleted (isDeleted) without being part of the next save.
    Result<void> refreshObjects(const std::vector<std::shared_ptr<ManagedObject>>& objects);

    /// A registered object, or a fault that is not checked against the store; null for an entity that the store does not have and
    /// for a temporary identifier that stands for nothing here.
    std::shared_ptr<ManagedObject> objectWithID(const ManagedObjectID& objectID);
    /// The object if its row exists and it is not deleted; an error otherwise.
    Result<std::shared_ptr<ManagedObject>> existingObjectWithID(const ManagedObjectID& objectID);
    Result<void> obtainPermanentIDsForObjects(const std::vector<std::shared_ptr<ManagedObject>>& objects);

    bool hasChanges() const noexcept;
    ObjectSet insertedObjects() const;
    ObjectSet updatedObjects() const;
    ObjectSet deletedObjects() const;
    /// Writes all changes in one transaction, then posts the did-save notification (not when there was nothing to write). On
    /// failure nothing is written and the context still holds its changes.
    Result<void> save();
    /// Drops all unsaved changes.
    void rollback();
    /// Forgets everything, registered objects included.
    void reset();
    /// Turns the object into a fault (mergeChanges false: drops its changes) or re-reads its row under its changes (true).
    void refreshObject(const std::shared_ptr<ManagedObject>& object, bool mergeChanges);
    /// Takes in another context's save, in time proportional to that save. Objects not registered here cost nothing.
    void mergeChanges(const ChangeRecord& record);
    void mergeChangesFromContextDidSaveNotification(const Notification& notification);

private:
    ManagedObjectContext(std::shared_ptr<PersistentStoreCoordinator> coordinator, ConcurrencyType type);
    std::unique_ptr<ContextState> m_state;
};

}  // namespace velkor::NS
