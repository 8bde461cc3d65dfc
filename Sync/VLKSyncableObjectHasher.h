#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "objectstore/ManagedObject.h"
#include "objectstore/PersistentStoreCoordinator.h"
#include "platform/base/Array.h"
#include "platform/base/Export.h"

namespace velkor {

class VLKSyncController;

/// Fingerprint of the set of objects that the user shares through the service, computed as the service computes it. Made for one
/// comparison, used on the thread of its context.
class VELKOR_EXPORT VLKSyncableObjectHasher {
public:
    /// The controller must outlive the hasher.
    VLKSyncableObjectHasher(std::shared_ptr<NS::ManagedObjectContext> ctx, VLKSyncController& syncController);

    const std::shared_ptr<NS::ManagedObjectContext>& ctx() const noexcept { return m_ctx; }
    void setCtx(std::shared_ptr<NS::ManagedObjectContext> ctx) { m_ctx = std::move(ctx); }
    VLKSyncController& syncController() const noexcept { return *m_syncController; }

    /// The shareable objects: syncable, with a GUID, the first of each GUID, neither opted out nor expired.
    std::vector<std::shared_ptr<NS::ManagedObject>> knownObjectsInContext(NS::ManagedObjectContext& ctx) const;
    /// Their GUIDs and those of the generic values that are set, without making objects where possible; none when the store could
    /// not be read.
    std::optional<NS::Array> guidsForAllKnownObjectsInContext(NS::ManagedObjectContext& ctx) const;
    /// The GUIDs of `ctx` in the order in which they are hashed, duplicates kept; none without a context or when the store could
    /// not be read.
    std::optional<NS::Array> knownShareableObjectsForHash() const;
    /// Base64 of the SHA-256 of the sorted GUIDs, 44 characters; none when the store could not be read. It is remembered by the
    /// store's coordinator until a save touches a GUID.
    std::optional<std::string> hashOfKnownShareableObjectsInContext(NS::ManagedObjectContext& ctx) const;
    /// The same for `ctx`; none without one.
    std::optional<std::string> hashOfKnownShareableObjects() const {
        return m_ctx ? hashOfKnownShareableObjectsInContext(*m_ctx) : std::nullopt;
    }

private:
    class Gathering;
    std::optional<Gathering> gather(NS::ManagedObjectContext& ctx) const;
    std::optional<std::string> rememberedOrComputedHash(
        NS::ManagedObjectContext& ctx, const std::vector<NS::PersistentStoreCoordinator::Watched>& watched) const;
    std::optional<std::string> computeHash(NS::ManagedObjectContext& ctx, const std::vector<std::string>& genericValues) const;

    std::shared_ptr<NS::ManagedObjectContext> m_ctx;
    VLKSyncController* m_syncController;
};

}  // namespace velkor
