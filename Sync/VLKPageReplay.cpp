#include "Sync/VLKPageReplay.h"

#include <utility>

#include "PelmoLib/NSManagedObject+JSON.h"
#include "PelmoLib/VLKSyncableObject.h"
#include "Sync/VLKPayloadDecoder.h"
#include "Sync/VLKTransactionKeys.h"

namespace velkor {

using namespace NS;

Result<void> VLKPageReplay::run() {
    if (auto loaded = loadObjects(); !loaded) return loaded;
    replayObjects();
    indexObjects();
    if (auto loaded = loadDestinations(); !loaded) return loaded;
    replayRelationships();
    return {};
}

Result<void> VLKPageReplay::preload(const ObjectClass& objectClass, const Array& guids) {
    const EntityDescription* entity = vlk_entityInManagedObjectContext(objectClass, m_context);
    const AttributeDescription* guid = entity ? entity->attributeNamed(VLKSyncableMember::guid) : nullptr;
    if (!guid || guids.empty()) return {};
    auto loaded = m_context.preloadObjects(*entity, *guid, guids);
    if (!loaded) return loaded.error();
    m_loaded.push_back(std::move(loaded).value());
    return {};
}

Result<void> VLKPageReplay::loadObjects() {
    std::map<const ObjectClass*, Array> guids;
    for (const auto& transaction : m_transactions) {
        if (transaction->m_objGuid.isNil()) continue;
        if (const ObjectClass* objectClass = classNamed(transaction->m_objType))
            guids[objectClass].push_back(transaction->m_objGuid);
    }
    for (const auto& [objectClass, values] : guids) {
        if (auto loaded = preload(*objectClass, values); !loaded) return loaded;
    }
    return {};
}

void VLKPageReplay::replayObjects() {
    VLKPayloadDecoder decoder(m_transactions);
    for (std::size_t i = 0; i < m_transactions.size(); ++i) {
        decoder.require(i);
        m_transactions[i]->replayIntoMOC(m_context);
    }
}

void VLKPageReplay::indexObjects() {
    for (const auto& transaction : m_transactions) {
        const auto& object = transaction->m_obj;
        if (!object || object->isDeleted()) continue;
        const ObjectClass* objectClass = object->entity().objectClass();
        // The store compares what is stored, and looks in the entity that the class leads to.
        const AttributeDescription* guid = object->entity().attributeNamed(VLKSyncableMember::guid);
        if (!guid || !objectClass || vlk_entityInManagedObjectContext(*objectClass, m_context) != &object->entity()) continue;
        if (const Value& text = object->primitiveValue(*guid); text.isString()) m_destinations[objectClass].emplace(text, object);
    }
}

void VLKPageReplay::collectDestinations(const Dictionary& description, std::map<const ObjectClass*, VLKGuidSet>& missing) {
    const ObjectClass* objectClass = classNamed(description["destination_type"]);
    if (!objectClass) return;
    const ObjectsByGuid& known = m_destinations[objectClass];
    VLKGuidSet& wanted = missing[objectClass];
    auto want = [&](const Value& guid) {
        if (guid.isString() && !known.contains(guid)) wanted.insert(guid);
    };
    if (const Array* guids = description["destination_objects"].asArray()) {
        for (const Value& guid : *guids) want(guid);
    }
    want(description["destination_object"]);
}

Result<void> VLKPageReplay::loadDestinations() {
    std::map<const ObjectClass*, VLKGuidSet> missing;
    std::map<const EntityDescription*, Replacement> replacements;
    for (const auto& transaction : m_transactions) {
        const Dictionary* relationships = transaction->receivedRelationships();
        if (!relationships) continue;
        const auto& object = transaction->m_obj;
        Replacement* replacement =
            object && !object->isDeleted() && !object->isInserted() ? &replacements[&object->entity()] : nullptr;
        if (replacement) replacement->objects.push_back(object);
        for (const auto& entry : *relationships) {
            if (const Dictionary* description = entry.value().asDictionary()) collectDestinations(*description, missing);
            if (const auto* relationship = replacement ? object->entity().relationshipNamed(entry.key()) : nullptr)
                replacement->relationships.insert(relationship);
        }
    }
    for (const auto& [objectClass, guids] : missing) {
        Array values;
        values.reserve(guids.size());
        for (const Value& guid : guids) values.push_back(guid);
        if (auto loaded = preload(*objectClass, values); !loaded) return loaded;
    }
    for (const auto& [entity, replacement] : replacements) {
        for (const RelationshipDescription* relationship : replacement.relationships) {
            if (auto loaded = m_context.prefetchRelationship(replacement.objects, *relationship); !loaded) return loaded;
        }
    }
    return {};
}

void VLKPageReplay::replayRelationships() {
    const VLKTransaction::DestinationLookup lookup = [this](const ObjectClass& objectClass, std::string_view guid,
                                                            ErrorOut error) { return destination(objectClass, guid, error); };
    for (const auto& transaction : m_transactions) transaction->replayRelationships(lookup);
}

std::shared_ptr<ManagedObject> VLKPageReplay::destination(const ObjectClass& objectClass, std::string_view guid, ErrorOut error) {
    ObjectsByGuid& known = m_destinations[&objectClass];
    if (const auto found = known.find(guid); found != known.end()) return found->second;
    auto object = objectForGuid(objectClass, guid, m_context, error);
    if (object) known.emplace(guid, object);
    return object;
}

}  // namespace velkor
