#include "Sync/VLKSyncableObjectHasher.h"

#include <bit>
#include <functional>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "PelmoLib/NSManagedObjectContext+Utils.h"
#include "PelmoLib/VLKSyncableObject.h"
#include "PelmoLib/encodings/GuidOrder.h"
#include "PelmoLib/encodings/VLKLog.h"
#include "Sync/VLKSyncController.h"
#include "Sync/VLKSyncableKind.h"
#include "objectstore/FetchRequest.h"
#include "objectstore/PersistentStoreCoordinator.h"

namespace velkor {

namespace {

/// Name of the coordinator's watch over everything that the hash depends on.
constexpr std::string_view watchName = "syncable guids";
constexpr std::string_view rememberedHash = "hash";
constexpr std::string_view rememberedGenericValues = "generic";

}  // namespace

/// The guids of a store's objects with their verdicts, in the order in which the objects come.
class VLKSyncableObjectHasher::Gathering {
public:
    void add(std::string_view guid, bool excluded) {
        m_text.append(guid);
        m_ends.push_back(m_text.size());
        m_excluded.push_back(excluded);
    }

    /// The guids that count, each once; valid while this lives. The first object of a guid decides: one that is left out hides
    /// later ones.
    std::vector<std::string_view> shared() const {
        std::vector<std::string_view> guids, firsts;
        guids.reserve(m_ends.size());
        // A flat table of the first objects' guids, at most half full.
        firsts.resize(std::bit_ceil(m_ends.size() * 2 + 1));
        for (std::size_t i = 0, begin = 0; i < m_ends.size(); begin = m_ends[i], ++i) {
            const std::string_view guid(m_text.data() + begin, m_ends[i] - begin);
            std::size_t place = std::hash<std::string_view>()(guid) & (firsts.size() - 1);
            while (firsts[place].data() && firsts[place] != guid) place = (place + 1) & (firsts.size() - 1);
            if (firsts[place].data()) continue;
            firsts[place] = guid;
            if (!m_excluded[i]) guids.push_back(guid);
        }
        return guids;
    }

private:
    std::string m_text;  // all guids, one after the other
    std::vector<std::size_t> m_ends;
    std::vector<bool> m_excluded;
};

VLKSyncableObjectHasher::VLKSyncableObjectHasher(std::shared_ptr<NS::ManagedObjectContext> ctx, VLKSyncController& syncController)
    : m_ctx(std::move(ctx)), m_syncController(&syncController) {}

std::vector<std::shared_ptr<NS::ManagedObject>> VLKSyncableObjectHasher::knownObjectsInContext(
    NS::ManagedObjectContext& ctx) const {
    std::vector<std::shared_ptr<NS::ManagedObject>> known;
    std::unordered_set<std::string> seen;
    for (const NS::EntityDescription* entity : m_syncController->syncableEntityTypesInCtx(&ctx)) {
        const VLKSyncableKind kind(*entity);
        auto objects = allEntitiesOfType(ctx, entity->name());
        if (!objects) continue;
        for (auto& object : *objects) {
            const NS::Value guid = guidOfObject(*object);
            if (!guid || !seen.insert(guid.stringOr("")).second) continue;
            if (!kind.excludesFromSharing(*object)) known.push_back(std::move(object));
        }
    }
    return known;
}

std::optional<VLKSyncableObjectHasher::Gathering> VLKSyncableObjectHasher::gather(NS::ManagedObjectContext& ctx) const {
    Gathering gathering;
    for (const NS::EntityDescription* entity : m_syncController->syncableEntityTypesInCtx(&ctx)) {
        const VLKSyncableKind kind(*entity);
        if (kind.judgedByValues()) {
            const auto read =
                ctx.enumerateValues(NS::FetchRequest(entity), kind.judgedAttributes(), [&](std::span<const NS::Value> values) {
                    if (const auto guid = values[0].asString()) gathering.add(*guid, kind.excludesFromSharing(values));
                });
            if (!read) return std::nullopt;
            continue;
        }
        const auto objects = allEntitiesOfType(ctx, entity->name());
        if (!objects) return std::nullopt;
        for (const auto& object : *objects) {
            const NS::Value guid = guidOfObject(*object);
            if (guid) gathering.add(*guid.asString(), kind.excludesFromSharing(*object));
        }
    }
    return gathering;
}

std::optional<NS::Array> VLKSyncableObjectHasher::guidsForAllKnownObjectsInContext(NS::ManagedObjectContext& ctx) const {
    const auto gathering = gather(ctx);
    if (!gathering) return std::nullopt;
    const auto shared = gathering->shared();
    NS::Array guids;
    guids.reserve(shared.size());
    for (const std::string_view guid : shared) guids.push_back(guid);
    for (const std::string& guid : m_syncController->guidsOfGenericValues()) guids.push_back(guid);
    return guids;
}

std::optional<NS::Array> VLKSyncableObjectHasher::knownShareableObjectsForHash() const {
    const auto guids = m_ctx ? guidsForAllKnownObjectsInContext(*m_ctx) : std::nullopt;
    if (!guids) return std::nullopt;
    std::vector<std::string_view> sorted;
    sorted.reserve(guids->size());
    for (const NS::Value& guid : *guids) sorted.push_back(*guid.asString());
    sortGuids(sorted);
    NS::Array result;
    result.reserve(sorted.size());
    for (const std::string_view guid : sorted) result.push_back(guid);
    return result;
}

std::optional<std::string> VLKSyncableObjectHasher::hashOfKnownShareableObjectsInContext(NS::ManagedObjectContext& ctx) const {
    // At level 400 the list is to be logged, so it has to be made.
    if (VLKLog::sharedInstance().isLoggingEnabledOfType(400)) return computeHash(ctx, m_syncController->guidsOfGenericValues());
    std::vector<NS::PersistentStoreCoordinator::Watched> watched;
    for (const NS::EntityDescription* entity : m_syncController->syncableEntityTypesInCtx(&ctx)) {
        const VLKSyncableKind kind(*entity);
        // What a function answers may change without any save.
        if (!kind.judgedByValues()) return computeHash(ctx, m_syncController->guidsOfGenericValues());
        watched.push_back({entity->name(), kind.judgedAttributes()});
    }
    return rememberedOrComputedHash(ctx, watched);
}

std::optional<std::string> VLKSyncableObjectHasher::rememberedOrComputedHash(
    NS::ManagedObjectContext& ctx, const std::vector<NS::PersistentStoreCoordinator::Watched>& watched) const {
    NS::PersistentStoreCoordinator& coordinator = *ctx.persistentStoreCoordinator();
    const auto generic = m_syncController->guidsOfGenericValues();
    NS::Array genericValues;
    for (const std::string& guid : generic) genericValues.push_back(guid);
    const NS::Value remembered = coordinator.rememberedValue(watchName);
    if (const NS::Dictionary* known = remembered.asDictionary();
        known && (*known)[rememberedGenericValues] == NS::Value(genericValues)) {
        return (*known)[rememberedHash].stringOr("");
    }
    // The stamp is taken before the guids are read: a save in between makes what is remembered outdated at once.
    const auto declared = coordinator.watch(watchName, watched);
    const auto stamp = coordinator.watchStamp(watchName);
    auto hash = computeHash(ctx, generic);
    if (hash && declared && stamp && stamp.value()) {
        coordinator.rememberValue(watchName, *stamp.value(),
                                  NS::Dictionary{{rememberedHash, *hash}, {rememberedGenericValues, genericValues}});
    }
    return hash;
}

std::optional<std::string> VLKSyncableObjectHasher::computeHash(NS::ManagedObjectContext& ctx,
                                                                const std::vector<std::string>& genericValues) const {
    const auto gathering = gather(ctx);
    if (!gathering) return std::nullopt;
    auto guids = gathering->shared();
    guids.insert(guids.end(), genericValues.begin(), genericValues.end());
    sortUniqueGuids(guids);
    if (VLKLog::sharedInstance().isLoggingEnabledOfType(400)) {
        VLKLog::sharedInstance().logMessageAtLevel(400, "Hashing known shareable objects: %@",
                                                   std::vector<std::string>(guids.begin(), guids.end()));
    }
    return syncHashOfSortedGuids(guids);
}

}  // namespace velkor
