#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Sync/VLKGuidTable.h"
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
    /// Looks for what was wanted; returns whether that succeeded. What could not be looked for counts as present, and so does an
    /// object whose members raise: a change is rather sent in vain than lost.
    bool fetch();

    /// A local transaction about such an object. It finds its object when it is needed.
    std::shared_ptr<VLKTransaction> transactionOfType(std::string_view type, const NS::EntityDescription& entity,
                                                      const NS::Value& guid) const;

private:
    struct Presence {
        bool present = false;
        std::shared_ptr<NS::ManagedObject> object;  // where it cannot be found by its class
    };
    struct Entry {
        VLKSyncableKind kind;
        bool foundByClass;  // the class's own look-up leads to this entity
        NS::Array wanted;   // not yet looked for
        VLKGuidMap<Presence> asked;
    };
    static void note(Entry& entry, std::string_view guid, std::shared_ptr<NS::ManagedObject> object);
    const Presence* presenceOf(const NS::EntityDescription& entity, std::string_view guid) const;
    Entry* entryOf(const NS::EntityDescription& entity);
    const Entry* entryOf(const NS::EntityDescription& entity) const;
    NS::Result<void> fetchValues(Entry& entry);
    NS::Result<void> fetchObjects(Entry& entry);

    std::shared_ptr<NS::ManagedObjectContext> m_ctx;
    std::vector<std::unique_ptr<Entry>> m_entries;
};

}  // namespace velkor
