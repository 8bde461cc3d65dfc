#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string_view>
#include <vector>

#include "Sync/VLKGuidTable.h"
#include "Sync/VLKTransaction.h"
#include "objectstore/ObjectSet.h"
#include "platform/base/Result.h"

namespace velkor {

/// Replays a page of received transactions into a context, as replaying them one by one would, with a fixed number of fetches an
/// entity: what the passes will look up is loaded before. Used once, on the context's thread.
class VLKPageReplay {
public:
    /// Both must outlive the replay.
    VLKPageReplay(NS::ManagedObjectContext& context, const std::vector<std::shared_ptr<VLKTransaction>>& transactions)
        : m_context(context), m_transactions(transactions) {}

    /// Both passes. Raises what a transaction raises. An error when the store cannot be read: what could not be looked up is not
    /// absent. Either way the context holds what was replayed so far.
    NS::Result<void> run();

private:
    using ObjectsByGuid = VLKGuidMap<std::shared_ptr<NS::ManagedObject>>;
    /// Stored objects of one entity whose relationships are about to be replaced.
    struct Replacement {
        std::vector<std::shared_ptr<NS::ManagedObject>> objects;
        std::set<const NS::RelationshipDescription*> relationships;
    };

    NS::Result<void> loadObjects();
    void replayObjects();
    void indexObjects();
    NS::Result<void> loadDestinations();
    void replayRelationships();
    NS::Result<void> preload(const NS::ObjectClass& objectClass, const NS::Array& guids);
    void collectDestinations(const NS::Dictionary& description, std::map<const NS::ObjectClass*, VLKGuidSet>& missing);
    std::shared_ptr<NS::ManagedObject> destination(const NS::ObjectClass& objectClass, std::string_view guid, NS::ErrorOut error);

    NS::ManagedObjectContext& m_context;
    const std::vector<std::shared_ptr<VLKTransaction>>& m_transactions;
    std::vector<NS::ObjectSet> m_loaded;  // keeps what was loaded in memory
    /// Found destinations of the second pass, which changes no guid.
    std::map<const NS::ObjectClass*, ObjectsByGuid> m_destinations;
};

}  // namespace velkor
