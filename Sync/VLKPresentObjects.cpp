#include "Sync/VLKPresentObjects.h"

#include "PelmoLib/NSManagedObject+JSON.h"
#include "PelmoLib/VLKSyncableObject.h"
#include "PelmoLib/encodings/VLKLog.h"
#include "Sync/VLKGuardedStep.h"
#include "Sync/VLKTransaction.h"
#include "objectstore/FetchRequest.h"
#include "objectstore/Predicate.h"

namespace velkor {

namespace {

NS::FetchRequest requestFor(const NS::EntityDescription& entity, const NS::Array& guids) {
    NS::FetchRequest request(&entity);
    request.predicate = NS::Predicate::in(VLKSyncableMember::guid, guids);
    return request;
}

}  // namespace

void VLKPresentObjects::want(const NS::EntityDescription& entity, const NS::Value& guid) {
    Entry* entry = entryOf(entity);
    if (!entry) {
        const NS::ObjectClass* objectClass = entity.objectClass();
        const bool foundByClass = objectClass && vlk_entityInManagedObjectContext(*objectClass, *m_ctx) == &entity;
        entry = m_entries.emplace_back(std::make_unique<Entry>(Entry{VLKSyncableKind(entity), foundByClass, {}, {}})).get();
    }
    if (entry->asked.try_emplace(guid).second) entry->wanted.push_back(guid);
}

void VLKPresentObjects::note(Entry& entry, std::string_view guid, std::shared_ptr<NS::ManagedObject> object) {
    const auto asked = entry.asked.find(guid);
    if (asked == entry.asked.end() || asked->second.present) return;
    asked->second = {true, std::move(object)};
}

bool VLKPresentObjects::fetch() {
    bool complete = true;
    for (const auto& entry : m_entries) {
        if (entry->wanted.empty() || !entry->kind.syncable()) continue;
        const auto fetched = entry->kind.judgedByValues() && entry->foundByClass ? fetchValues(*entry) : fetchObjects(*entry);
        if (!fetched) {
            complete = false;
            VLKLog::sharedInstance().logMessageAtLevel(100, "Unable to look for changed objects: %@", fetched.error());
            for (const NS::Value& guid : entry->wanted) note(*entry, guid.asString().value_or(""), nullptr);
        }
        entry->wanted = {};
    }
    return complete;
}

NS::Result<void> VLKPresentObjects::fetchValues(Entry& entry) {
    const auto request = requestFor(entry.kind.entity(), entry.wanted);
    const auto attributes = entry.kind.judgedAttributes();
    return m_ctx->enumerateValues(request, attributes, [&](std::span<const NS::Value> values) {
        if (!entry.kind.excludesFromCapture(values)) note(entry, values[0].asString().value_or(""), nullptr);
    });
}

NS::Result<void> VLKPresentObjects::fetchObjects(Entry& entry) {
    auto objects = m_ctx->executeFetchRequest(requestFor(entry.kind.entity(), entry.wanted));
    if (!objects) return objects.error();
    for (const auto& object : objects.value()) {
        bool isExcluded = false;
        runGuarded([&] { isExcluded = entry.kind.excludesFromCapture(*object); });
        if (!isExcluded) note(entry, guidOfObject(*object).asString().value_or(""), object);
    }
    return {};
}

const VLKPresentObjects::Presence* VLKPresentObjects::presenceOf(const NS::EntityDescription& entity,
                                                                 std::string_view guid) const {
    const Entry* entry = entryOf(entity);
    if (!entry) return nullptr;
    const auto asked = entry->asked.find(guid);
    return asked != entry->asked.end() && asked->second.present ? &asked->second : nullptr;
}

std::shared_ptr<VLKTransaction> VLKPresentObjects::transactionOfType(std::string_view type, const NS::EntityDescription& entity,
                                                                     const NS::Value& guid) const {
    const Presence* presence = presenceOf(entity, guid.asString().value_or(""));
    if (!presence) return nullptr;
    if (presence->object) return VLKTransaction::transactionOfType(type, presence->object);
    return VLKTransaction::transactionOfType(type, entity.managedObjectClassName(), guid, m_ctx);
}

VLKPresentObjects::Entry* VLKPresentObjects::entryOf(const NS::EntityDescription& entity) {
    return const_cast<Entry*>(std::as_const(*this).entryOf(entity));
}

const VLKPresentObjects::Entry* VLKPresentObjects::entryOf(const NS::EntityDescription& entity) const {
    for (const auto& entry : m_entries) {
        if (&entry->kind.entity() == &entity) return entry.get();
    }
    return nullptr;
}

}  // namespace velkor
