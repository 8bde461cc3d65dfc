#pragma once

#include <memory>
#include <span>
#include <unordered_set>
#include <vector>

#include "objectstore/ContextState.h"
#include "objectstore/StoreSession.h"

namespace velkor::NS {

/// One save of a context: finds what really differs, writes it in one transaction, makes the context's state the stored one and
/// tells the observers. Until the commit the context's changes stay as they are; a deletion of a row that somebody has changed
/// meanwhile applies its delete rules to what is there now. Internal to the object store.
class SaveOperation {
public:
    explicit SaveOperation(ContextState& context) : m_context(context) {}
    Result<void> run();

private:
    using ObjectRef = std::shared_ptr<ManagedObject>;

    /// An updated object and what of it is written.
    struct Update {
        ManagedObject* object;
        std::size_t firstPlace;  // of its part of m_places: the columns that differ
        std::size_t placeCount;
        bool written;  // else nothing differs
        bool byUser;   // else a delete rule rewrote it
    };
    /// What a conflict made of an object: taken over after the commit.
    struct Resolution {
        ManagedObject* object;
        std::vector<Value> values;
        std::vector<Value> rowValues;  // that the conflict was with
        std::int64_t version;
    };
    struct RowRef {
        const EntityDescription* entity;
        RowKey key;
    };

    Result<void> transact();

    // What is to be written (SaveOperation.cpp)
    void gather();
    void gatherUpdate(ManagedObject& object);
    bool hasWork() const;
    Result<void> validate();
    Result<void> checkRequiredLinks(ManagedObject& object);
    Result<void> checkDenials(ManagedObject& object);

    // Writing, within the transaction (SaveOperation+Writing.cpp)
    Result<void> write(StoreSession& session);
    Result<void> removeRows(StoreSession& session);
    Result<void> insertRows(StoreSession& session);
    Result<void> insertRow(StoreSession& session, ManagedObject& object, RowKey key);
    Result<void> reserveKeys(StoreSession& session, std::span<ManagedObject* const> objects);
    Result<void> updateRows(StoreSession& session);
    Result<void> rewriteRow(StoreSession& session, const EntityDescription& entity, RowKey key,
                            std::span<const std::size_t> places);
    Result<void> touchRows(StoreSession& session);
    Result<void> writeLinks(StoreSession& session, ManagedObject& object);
    Result<void> record(StoreSession& session);
    Result<void> recordChange(StoreSession& session, ManagedObject& object, ChangeKind kind);
    /// The object's values with row keys in place of temporary ones; valid until the next call.
    std::span<const Value> rowValues(ManagedObject& object);
    bool waitsForKeys(ManagedObject& object) const;
    bool isGone(const ManagedObject& object) const { return m_gone.contains(const_cast<ManagedObject*>(&object)); }
    std::span<const std::size_t> placesOf(const Update& update) const {
        return std::span(m_places).subspan(update.firstPlace, update.placeCount);
    }

    static Error conflict(const ManagedObject& object);

    // Conflicts, within the transaction (SaveOperation+Conflicts.cpp)
    Result<std::vector<StoredRow>> readRow(StoreSession& session, const EntityDescription& entity, RowKey key);
    Result<void> resolveConflict(StoreSession& session, Update& update);
    Result<void> touchDestination(StoreSession& session, ManagedObject& object, std::size_t place, const Value& destination);
    Result<void> resolveMissing(StoreSession& session, Update& update);
    Result<void> revive(StoreSession& session, ManagedObject& object);
    Result<void> reconnectRevived(StoreSession& session);
    Result<void> dropReferences(StoreSession& session, ManagedObject& gone);
    Result<void> repairPartners(StoreSession& session);
    Result<void> repairPartner(StoreSession& session, const RelationshipDescription& toOne, RowKey key, RowKey partner);
    Result<void> prepareDeletionsAnew(StoreSession& session);
    Result<void> prepareDeletionAnew(StoreSession& session, ManagedObject& object);

    // After the commit (SaveOperation.cpp)
    void settle();
    void settleInserted(ManagedObject& object);
    void settleUpdated(const Update& update);
    void settleResolved(const Resolution& resolution);
    void settleDeleted(ManagedObject& object);
    void announce();

    ContextState& m_context;
    std::vector<Update> m_updates;
    std::vector<std::size_t> m_places;
    std::vector<ManagedObject*> m_stale;  // deleted objects whose rows somebody has changed
    std::vector<Resolution> m_resolutions;
    std::vector<ManagedObject*> m_revived;      // updated objects whose rows were missing and are written again
    std::unordered_set<ManagedObject*> m_gone;  // updated objects whose rows are missing and stay so
    std::vector<RowRef> m_rewritten;            // rows that were written beside the objects' own
    std::vector<Value> m_resolved;              // see rowValues
    std::vector<Value> m_noValues;              // a row of nothing
    SaveStamp m_stamp;
    std::shared_ptr<ChangeRecord> m_record;
    ChangeTracker::Lists m_lists;  // after the commit
};

}  // namespace velkor::NS
