#pragma once

#include <functional>
#include <memory>
#include <span>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "objectstore/ChangeTracker.h"
#include "objectstore/LookupCache.h"
#include "objectstore/ManagedObjectContext.h"
#include "objectstore/ObjectRegistry.h"
#include "objectstore/ObjectState.h"
#include "objectstore/StoreSession.h"

namespace velkor::NS {

/// The inside of a context: what objects and the context's theme files share. Internal to the object store.
struct ContextState {
    using ObjectRef = std::shared_ptr<ManagedObject>;

    ContextState(ManagedObjectContext& owner, std::shared_ptr<PersistentStoreCoordinator> store, ConcurrencyType concurrency);
    /// The state of the object's context; null when the object belongs to none.
    static ContextState* of(const ManagedObject& object) noexcept { return object.m_context; }

    void assertConfinement() const {
#ifndef NDEBUG
        checkConfinement();
#endif
    }
    void checkConfinement() const;

    // Objects (ManagedObjectContext.cpp)
    /// A new object, registered as a fault when it has a row key, else with a temporary key.
    ObjectRef makeObject(const EntityDescription& entity, RowKey key);
    /// The registered object, else a new fault.
    ObjectRef objectForKey(const EntityDescription& entity, RowKey key);
    /// The object belongs to no context from now on; it has left the registry, or leaves it with all others.
    void detach(ManagedObject& object) noexcept;
    /// Before a change of the object: loads it and keeps what it looked like. False: it cannot be changed any more.
    bool willChange(ManagedObject& object, bool byRule = false);
    void setValue(ManagedObject& object, std::size_t attribute, Value value);
    void rollback();
    void forgetEverything();
    void forgetLookups() noexcept;

    // Rows (ManagedObjectContext+Refresh.cpp)
    /// Loads the fault, and others of its entity along. A store that cannot be read raises.
    void fire(ManagedObject& fault);
    /// Brings an object without unsaved changes up to date with its row; takes the row's values.
    void takeRow(ManagedObject& object, StoredRow& row);
    /// Takes the row in under the unsaved changes.
    void mergeRow(ManagedObject& object, StoredRow& row);
    void refresh(ManagedObject& object, StoredRow& row) {
        stateOf(object).isChanged() ? mergeRow(object, row) : takeRow(object, row);
    }
    Result<void> refreshRows(const EntityDescription& entity, const std::vector<ManagedObject*>& objects,
                             void (ContextState::*rowIsGone)(ManagedObject&) = &ContextState::loseRow);
    void makeFault(ManagedObject& object);
    /// The object's row is gone: unsaved changes stay, unless the store's state wins; their save or rollback will have to look.
    void loseRow(ManagedObject& object);
    /// The object goes with its row, unsaved changes too.
    void depart(ManagedObject& object);
    /// The row of an object that departed is there again; the object stays behind.
    void forgetDeparted(const EntityDescription& entity, RowKey key) noexcept;
    void forgetUnsavedLinksTo(ManagedObject& object);
    void dropChanges(ManagedObject& object);
    void loseOverruled();
    /// The store's value of a to-one relationship has changed: loaded destinations of the other side follow.
    void inverseFollows(ManagedObject& object, const RelationshipDescription& toOne, RowKey from, RowKey to);

    // Fetches (ManagedObjectContext+Fetch.cpp)
    Result<std::vector<ObjectRef>> fetch(const FetchRequest& request);
    Result<void> fetchStored(const FetchRequest& request, std::vector<ObjectRef>& found);
    Result<std::size_t> count(const FetchRequest& request);
    bool answerFromLookups(const FetchRequest& request, std::vector<ObjectRef>& found);
    Result<void> prefetch(std::span<const ObjectRef> objects, const RelationshipDescription& relationship);

    // Relationships (ManagedObjectContext+Relationships.cpp)
    /// The object's links, not necessarily loaded.
    LinkSet& linksOf(ManagedObject& object, const RelationshipDescription& toMany);
    LinkSet& loadedLinksOf(ManagedObject& object, const RelationshipDescription& toMany);
    Result<void> loadLinks(std::span<ManagedObject* const> owners, const RelationshipDescription& toMany);
    void settleLinks(ManagedObject& owner, const RelationshipDescription& toMany, const KeySet& stored);
    ObjectRef destination(const ManagedObject& owner, const RelationshipDescription& relationship, RowKey key);
    void setDestination(ManagedObject& owner, const RelationshipDescription& toOne, ManagedObject* destination);
    void changeLink(ManagedObject& owner, const RelationshipDescription& toMany, ManagedObject& destination, bool linked);
    void setDestinations(ManagedObject& owner, const RelationshipDescription& toMany, const ObjectSet& destinations);
    void checkDestination(const ManagedObject& owner, const RelationshipDescription& relationship,
                          const ManagedObject& destination) const;
    /// The one side of an inverse follows what happened on the other.
    void join(ManagedObject& object, const RelationshipDescription& relationship, ManagedObject& member);
    void leave(ManagedObject& object, const RelationshipDescription& relationship, ManagedObject& member, bool byRule);
    bool isLinked(ManagedObject& owner, const RelationshipDescription& toMany, ManagedObject& destination);
    void writeToOne(ManagedObject& owner, const RelationshipDescription& toOne, RowKey destination, bool byRule);

    // Deletion (ManagedObjectContext+Delete.cpp)
    void deleteObject(ManagedObject& object);
    bool markDeleted(ManagedObject& object);
    /// Nullifies, and gathers what is to be deleted too.
    void applyDeleteRules(ManagedObject& object, std::vector<ObjectRef>& cascade);
    void nullify(ManagedObject& object, const RelationshipDescription& relationship, std::span<const RowKey> destinations);

    // Saves and merges (ManagedObjectContext+Save.cpp, ManagedObjectContext+Merge.cpp)
    Result<void> givePermanentKeys(const EntityDescription& entity, const std::vector<ManagedObject*>& objects);
    /// Changed objects refer to the row keys that temporary ones stand for.
    void adoptPermanentKeys();
    void merge(const ChangeRecord& record);

    const EntityDescription* ownEntity(const EntityDescription& entity) const noexcept;

    ManagedObjectContext& context;
    const std::shared_ptr<PersistentStoreCoordinator> coordinator;
    const ConcurrencyType type;
    const std::thread::id thread = std::this_thread::get_id();
    MergePolicy policy = MergePolicy::objectWins;
    std::string author;
    ObjectRegistry registry;
    ChangeTracker changes;
    LookupCache lookups;
    /// Found while rows are read, settled afterwards.
    struct Overruled {
        ObjectRef object;
        const RelationshipDescription* toOne;
        RowKey destination;
    };
    std::vector<Overruled> overruled;
    /// Prefetched destinations live until the next prefetch of their relationship, save, rollback or reset.
    std::unordered_map<const RelationshipDescription*, std::vector<ObjectRef>> prefetched;
    /// How many owners the next load of a to-many relationship takes along: doubled at each load of a single one.
    std::unordered_map<const RelationshipDescription*, std::size_t> readAhead;
};

}  // namespace velkor::NS
