#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Sync/VLKSyncableKind.h"
#include "objectstore/ManagedObjectContext.h"
#include "platform/base/Array.h"
#include "platform/base/Result.h"

namespace velkor {

class VLKTransaction;

/// Which objects, of those asked for by guid, the store has now and capture does not exclude: one fetch an entity. On the
/// context's thread.
class VLKPresentObjects {
public:
    explicit VLKPresentObjects(std::shared_ptr<NS::ManagedObjectContext> ctx) : m_ctx(std::move(ctx)) {}

    /// To be looked for by the next `fetch`.
    void want(const NS::EntityDescription& entity, const NS::Value& guid);
    /// Looks for what was wanted. When that fails, all of it counts as present: a change is rather sent in vain than lost.
    void fetch();

    /// Whether the entity has an object with this guid that is not excluded.
    bool has(const NS::EntityDescription& entity, std::string_view guid) const;
    /// A local transaction about such an object. It finds its object when it is needed.
    std::shared_ptr<VLKTransaction> transactionOfType(std::string_view type, const NS::EntityDescription& entity,
                                                      const NS::Value& guid) const;

private:
    struct Entry {
        VLKSyncableKind kind;
        bool foundByClass;  // the class's own look-up leads to this entity
        NS::Array wanted;
        std::unordered_map<std::string, std::shared_ptr<NS::ManagedObject>>
            found;  // the object, where it cannot be found by its class
    };
    Entry* entryOf(const NS::EntityDescription& entity);
    const Entry* entryOf(const NS::EntityDescription& entity) const;
    NS::Result<void> fetchValues(Entry& entry);
    NS::Result<void> fetchObjects(Entry& entry);

    std::shared_ptr<NS::ManagedObjectContext> m_ctx;
    std::vector<std::unique_ptr<Entry>> m_entries;
};

}  // namespace velkor
