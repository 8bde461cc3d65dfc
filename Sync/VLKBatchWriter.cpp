#include "Sync/VLKBatchWriter.h"

#include <algorithm>
#include <map>
#include <utility>

#include "PelmoLib/NSManagedObject+JSON.h"
#include "PelmoLib/VLKSyncableObject.h"
#include "PelmoLib/encodings/VLKLog.h"
#include "Sync/VLKTransactionWriter.h"
#include "objectstore/StoreReadFailure.h"
#include "platform/base/Exception.h"
#include "platform/concurrency/OperationQueue.h"

namespace velkor {

using namespace NS;

namespace {

using Progress = VLKTransactionWriter::Progress;

/// Transactions whose objects' JSON texts are made before the pool compresses them: enough to keep it busy, few enough to stay in
/// the cache.
constexpr std::size_t sliceLength = 256;
/// Payloads that one thread compresses at a stretch.
constexpr std::size_t stretchLength = 16;

/// The objects of one context that a batch is about.
struct ContextObjects {
    std::map<const EntityDescription*, Array> missingGuids;
    std::vector<ObjectSet> found;
    std::vector<std::shared_ptr<ManagedObject>> known;
    std::map<const EntityDescription*, std::vector<std::shared_ptr<ManagedObject>>> byEntity;
};

Result<void> findMissing(ManagedObjectContext& context, ContextObjects& objects) {
    for (const auto& [entity, guids] : objects.missingGuids) {
        const AttributeDescription* guid = entity->attributeNamed(VLKSyncableMember::guid);
        if (!guid) continue;
        auto found = context.preloadObjects(*entity, *guid, guids);
        if (!found) return found.error();
        objects.found.push_back(std::move(found).value());
    }
    return {};
}

Result<void> loadRelationships(ManagedObjectContext& context, const ContextObjects& objects) {
    for (const auto& [entity, members] : objects.byEntity) {
        for (const RelationshipDescription& relationship : entity->relationships()) {
            if (auto loaded = context.prefetchRelationship(members, relationship); !loaded) return loaded;
        }
    }
    return {};
}

/// One transaction of a slice on its way into the text. Slots are used again by the next slice, with their storage.
struct Slot {
    const std::string* key = nullptr;
    VLKTransaction* transaction = nullptr;
    std::string wire;
    std::string json;
    std::size_t head = 0;  // where the payload starts in `wire`
    Progress progress = Progress::complete;
    bool encoded = false;
};

class Slices {
public:
    Slices(JSONWriter& writer, std::vector<std::string>& bad)
        : m_out(writer), m_bad(bad), m_slots(VLKLog::sharedInstance().isLoggingEnabledOfType(400) ? 1 : sliceLength) {}

    void add(const std::string& key, VLKTransaction& transaction) {
        Slot& slot = m_slots[m_used];
        slot.key = &key;
        slot.transaction = &transaction;
        slot.wire.clear();
        slot.json.clear();
        if (!guarded(key, [&] { slot.progress = m_writer.begin(slot.wire, slot.json, transaction); })) return;
        if (slot.progress == Progress::unwritable || !isWritable(key, transaction)) {
            m_bad.push_back(key);
            return;
        }
        slot.head = slot.wire.size();
        if (++m_used == m_slots.size()) flush();
    }

    void flush() {
        const std::size_t stretches = (m_used + stretchLength - 1) / stretchLength;
        auto compress = [this](std::size_t stretch) {
            const std::size_t end = std::min(m_used, (stretch + 1) * stretchLength);
            for (std::size_t i = stretch * stretchLength; i < end; ++i) {
                Slot& slot = m_slots[i];
                if (slot.progress == Progress::awaitsPayload)
                    slot.encoded = VLKTransactionWriter::appendPayload(slot.wire, slot.json);
            }
        };
        if (stretches == 1) {
            compress(0);
        } else if (stretches > 1) {
            applyConcurrently(stretches, compress);
        }
        for (std::size_t i = 0; i < m_used; ++i) take(m_slots[i]);
        m_used = 0;
    }

private:
    /// Runs the step; what it raises makes the transaction a bad one, except a failed assertion or a store that cannot be read.
    template <class Step>
    bool guarded(const std::string& key, const Step& step) {
        try {
            step();
            return true;
        } catch (const AssertionFailure&) {
            throw;
        } catch (const StoreReadFailure&) {
            throw;
        } catch (const Exception&) {
            m_bad.push_back(key);
            return false;
        }
    }

    /// Keys are almost always the guid that the wire form carries, which has been checked.
    static bool isWritable(const std::string& key, const VLKTransaction& transaction) {
        if (transaction.objGuid() == key) return true;
        std::string text;
        JSONWriter writer(text);
        writer.string(key);
        return writer.ok();
    }

    void take(Slot& slot) {
        if (slot.progress == Progress::awaitsPayload) {
            const auto payload = slot.encoded ? std::optional(std::string_view(slot.wire).substr(slot.head)) : std::nullopt;
            if (!guarded(*slot.key, [&] { VLKTransactionWriter::logPayload(*slot.transaction, payload); })) return;
            VLKTransactionWriter::end(slot.wire);
        }
        m_out.key(*slot.key);
        m_out.raw(slot.wire);
    }

    JSONWriter& m_out;
    std::vector<std::string>& m_bad;
    VLKTransactionWriter m_writer;
    std::vector<Slot> m_slots;
    std::size_t m_used = 0;
};

}  // namespace

Result<void> VLKBatchWriter::loadObjects(const VLKTransactionMap& batch) {
    std::map<ManagedObjectContext*, ContextObjects> contexts;
    for (const auto& [key, transaction] : batch) {
        if (transaction->isGenericValue() || transaction->isDelete()) continue;
        ManagedObjectContext* context =
            transaction->m_obj ? transaction->m_obj->managedObjectContext() : transaction->ctx().get();
        if (!context) continue;
        ContextObjects& objects = contexts[context];
        if (transaction->m_obj) {
            objects.known.push_back(transaction->m_obj);
        } else if (const ObjectClass* objectClass = ObjectClass::forName(transaction->m_objType.stringOr({}));
                   objectClass && transaction->m_objGuid) {
            if (const auto* entity = vlk_entityInManagedObjectContext(*objectClass, *context))
                objects.missingGuids[entity].push_back(transaction->m_objGuid);
        }
    }
    for (auto& [context, objects] : contexts) {
        if (auto found = findMissing(*context, objects); !found) return found;
        if (auto refreshed = context->refreshObjects(objects.known); !refreshed) return refreshed;
    }
    for (const auto& [key, transaction] : batch) {
        if (transaction->isGenericValue() || transaction->isDelete()) continue;
        if (const auto object = transaction->obj())
            contexts[object->managedObjectContext()].byEntity[&object->entity()].push_back(object);
    }
    for (const auto& [context, objects] : contexts) {
        if (auto loaded = loadRelationships(*context, objects); !loaded) return loaded;
    }
    return {};
}

std::vector<std::string> VLKBatchWriter::writeTransactions(JSONWriter& writer, const VLKTransactionMap& batch) {
    std::vector<std::string> bad;
    Slices slices(writer, bad);
    writer.beginObject();
    for (const auto& [key, transaction] : batch) {
        if (!transaction->isGenericValue()) slices.add(key, *transaction);
    }
    slices.flush();
    writer.endObject();
    return bad;
}

}  // namespace velkor
