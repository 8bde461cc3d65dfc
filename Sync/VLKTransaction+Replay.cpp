// Received transactions written into a store: objects first, relationships when all objects are there.
#include "PelmoLib/NSManagedObject+JSON.h"
#include "PelmoLib/VLKSyncableObject.h"
#include "PelmoLib/encodings/VLKLog.h"
#include "Sync/VLKReceivedPayload.h"
#include "Sync/VLKTransaction.h"
#include "Sync/VLKTransactionKeys.h"
#include "objectstore/StoreReadFailure.h"
#include "platform/base/Exception.h"
#include "platform/base/Format.h"
#include "platform/base/SystemLog.h"

namespace velkor {

using namespace NS;

namespace {

void logIgnored(std::string_view name, std::string_view why) {
    VLKLog::sharedInstance().logMessageAtLevel(100, "Ignoring received relationship %@: %@", name, why);
}

void logMissing(const Value& destinationType, const Value& guid, const std::optional<Error>& error) {
    VLKLog::sharedInstance().logMessageAtLevel(
        100, "Unable to find object for destination object of type: %@ with guid: %@ error: %@", destinationType, guid,
        error ? std::optional(error->localizedDescription()) : std::nullopt);
}

/// Relationship names that a replay leaves alone on one object.
class Exclusions {
public:
    explicit Exclusions(const ManagedObject* object) {
        const ObjectClass* objectClass = object ? object->entity().objectClass() : nullptr;
        if (!objectClass) return;
        m_notSerialized = objectClass->valueOfMember(VLKSyncableMember::relationshipsToNotSerialize, *object);
        m_notDeserialized = objectClass->valueOfMember(VLKSyncableMember::relationshipsToNotDeSerialize, *object);
    }
    bool contain(std::string_view name) const { return listed(m_notSerialized, name) || listed(m_notDeserialized, name); }

private:
    static bool listed(const Value& names, std::string_view name) {
        const Array* array = names.asArray();
        if (!array) return false;
        for (const Value& excluded : *array) {
            if (excluded.asString() == name) return true;
        }
        return false;
    }
    Value m_notSerialized, m_notDeserialized;
};

using Lookup = std::function<std::shared_ptr<ManagedObject>(const ObjectClass&, std::string_view, ErrorOut)>;

std::shared_ptr<ManagedObject> findDestination(const Lookup& lookup, const ObjectClass* objectClass, const Value& guid,
                                               std::optional<Error>& error) {
    const auto text = guid.asString();
    return objectClass && text ? lookup(*objectClass, *text, &error) : nullptr;
}

void replayToMany(ManagedObject* object, std::string_view name, const Dictionary& description, const Lookup& lookup) {
    const Value& type = description["destination_type"];
    const ObjectClass* objectClass = classNamed(type);
    const Array* guids = description["destination_objects"].asArray();
    if (!guids && !description["destination_objects"].isNil()) logIgnored(name, "its destination_objects are no array.");
    std::vector<std::shared_ptr<ManagedObject>> destinations;
    if (guids) destinations.reserve(guids->size());
    for (std::size_t i = 0; guids && i < guids->size(); ++i) {
        std::optional<Error> error;
        if (auto destination = findDestination(lookup, objectClass, (*guids)[i], error)) {
            destinations.push_back(std::move(destination));
        } else {
            logMissing(type, (*guids)[i], error);
        }
    }
    if (!object) return;
    const RelationshipDescription* relationship = object->entity().relationshipNamed(name);
    if (!relationship || !relationship->toMany) return logIgnored(name, "the entity has no to-many relationship of that name.");
    object->setDestinations(*relationship, ObjectSet(std::move(destinations)));
}

void replayToOne(ManagedObject* object, std::string_view name, const Dictionary& description, const Lookup& lookup) {
    const Value& guid = description["destination_object"];
    if (guid.isNil()) return;
    if (!guid.isString()) return logIgnored(name, "its destination_object is no text.");
    try {
        const Value& type = description["destination_type"];
        std::optional<Error> error;
        auto destination = findDestination(lookup, classNamed(type), guid, error);
        if (!destination) return logMissing(type, guid, error);
        if (object) object->setValueForKey(destination, name);
    } catch (const StoreReadFailure&) {
        throw;  // the whole page must come again
    } catch (const Exception& exception) {
        systemLog(format("Failed to inflate object %@ due to error: %@", guid, exception.reason()));
    }
}

}  // namespace

VLKReceivedPayload& VLKTransaction::payload() {
    if (!m_payload) {
        const Value text = textUnderKey(m_jsonData, WireKey::object);
        m_payload = std::make_unique<VLKReceivedPayload>(VLKReceivedPayload::decode(text.asString()));
    }
    return *m_payload;
}

void VLKTransaction::decodePayloadAhead() {
    if (!m_replayable || !carriesObject() || !m_jsonData[WireKey::object].isString()) return;
    try {
        payload();
    } catch (...) {
        m_payload = nullptr;  // the replay decodes it again and raises in its turn
    }
}

std::shared_ptr<ManagedObject> VLKTransaction::find(const ObjectClass& objectClass, ManagedObjectContext& context) const {
    const auto guid = m_objGuid.asString();
    return guid ? objectForGuid(objectClass, *guid, context) : nullptr;
}

void VLKTransaction::replayIntoMOC(ManagedObjectContext& context) {
    assertThat(m_replayable, "replayableTransaction");
    const ObjectClass* objectClass = classNamed(m_objType);
    if (!objectClass) {
        systemLog(format("Unknown object type from server: %@", m_objType));
        systemLog("Object will be dropped!");
        return;
    }
    switch (m_kind) {
        case Kind::insert:
        case Kind::update:
            return writeObject(*objectClass, context);
        case Kind::remove:
            m_obj = find(*objectClass, context);
            if (m_obj) context.deleteObject(m_obj);
            return;
        case Kind::expired:
            m_obj = find(*objectClass, context);
            if (m_obj && respondsToSetExpired(*m_obj)) setExpired(*m_obj, true);
            return;
        case Kind::other:
            return;
    }
}

void VLKTransaction::writeObject(const ObjectClass& objectClass, ManagedObjectContext& context) {
    m_obj = find(objectClass, context);
    VLKReceivedPayload& received = payload();
    if (received.hasData) VLKLog::sharedInstance().logMessageAtLevel(400, "%@", received.text);
    if (!m_obj) m_obj = vlk_insertInManagedObjectContext(objectClass, context);
    if (received.object) {
        const Dictionary* attributes = (*received.object)["attributes"].asDictionary();
        updatePropertiesFromAttributes(*m_obj, attributes ? *attributes : Dictionary());
        received.object->remove("attributes");  // the second pass does not need them
    }
    if (guidOfObject(*m_obj).isNil()) context.deleteObject(m_obj);
}

const Dictionary* VLKTransaction::receivedRelationships() {
    if (!carriesObject() || !payload().object) return nullptr;
    const Dictionary* computed = m_jsonData[WireKey::computedRelationships].asDictionary();
    if (computed && !computed->empty()) return computed;
    return (*m_payload->object)["relationships"].asDictionary();
}

void VLKTransaction::replayRelationshipsIntoMOC(ManagedObjectContext& context) {
    assertThat(m_replayable, "replayableTransaction");
    replayRelationships([&](const ObjectClass& objectClass, std::string_view guid, ErrorOut error) {
        return objectForGuid(objectClass, guid, context, error);
    });
}

void VLKTransaction::replayRelationships(const DestinationLookup& lookup) {
    const Dictionary* relationships = receivedRelationships();
    if (!relationships) return;
    if (const Value& computed = m_jsonData[WireKey::computedRelationships];
        computed && !computed.isNull() && !computed.asDictionary())
        logIgnored(WireKey::computedRelationships, "they are no dictionary.");
    ManagedObject* object = m_obj && !m_obj->isDeleted() ? m_obj.get() : nullptr;
    const Exclusions excluded(object);
    for (const auto& entry : *relationships) {
        if (excluded.contain(entry.key())) continue;
        const Dictionary* description = entry.value().asDictionary();
        if (!description) {
            logIgnored(entry.key(), "its description is no dictionary.");
        } else if ((*description)["to_many"].asBoolean().value_or(false)) {
            replayToMany(object, entry.key(), *description, lookup);
        } else {
            replayToOne(object, entry.key(), *description, lookup);
        }
    }
}

}  // namespace velkor
