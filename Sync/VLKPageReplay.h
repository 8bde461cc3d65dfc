#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

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
    /// Guids as keys: the texts are shared with the objects and descriptions that they come from.
    struct GuidHash {
        using is_transparent = void;
        std::size_t operator()(std::string_view guid) const noexcept { return std::hash<std::string_view>()(guid); }
        std::size_t operator()(const NS::Value& guid) const noexcept { return (*this)(guid.asString().value_or("")); }
    };
    struct GuidEqual {
        using is_transparent = void;
        static std::string_view text(const NS::Value& guid) noexcept { return guid.asString().value_or(""); }
        static std::string_view text(std::string_view guid) noexcept { return guid; }
        template <class A, class B>
        bool operator()(const A& a, const B& b) const noexcept {
            return text(a) == text(b);
        }
    };
    using GuidSet = std::unordered_set<NS::Value, GuidHash, GuidEqual>;
    using ObjectsByGuid = std::unordered_map<NS::Value, std::shared_ptr<NS::ManagedObject>, GuidHash, GuidEqual>;
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
    void collectDestinations(const NS::Dictionary& description, std::map<const NS::ObjectClass*, GuidSet>& missing);
    std::shared_ptr<NS::ManagedObject> destination(const NS::ObjectClass& objectClass, std::string_view guid, NS::ErrorOut error);

    NS::ManagedObjectContext& m_context;
    const std::vector<std::shared_ptr<VLKTransaction>>& m_transactions;
    std::vector<NS::ObjectSet> m_loaded;  // keeps what was loaded in memory
    /// Found destinations of the second pass, which changes no guid.
    std::map<const NS::ObjectClass*, ObjectsByGuid> m_destinations;
};

}  // namespace velkor
