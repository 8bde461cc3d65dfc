#include "PelmoLib/NSManagedObject+JSON.h"

#include <algorithm>

#include "PelmoLib/AttributeConversion.h"
#include "PelmoLib/ObjectJSONWriter.h"
#include "PelmoLib/VLKSyncableObject.h"
#include "PelmoLib/encodings/GuidOrder.h"
#include "PelmoLib/encodings/NSData+Digests.h"
#include "PelmoLib/encodings/VLKLog.h"
#include "json/CJSONDeserializer.h"
#include "objectstore/ManagedObjectModel.h"
#include "platform/base/Exception.h"
#include "platform/base/Format.h"

namespace velkor {

using namespace NS;

std::optional<Data> objectAsJson(const ManagedObject& object) {
    std::string text;
    if (!ObjectJSONWriter().append(text, object)) return std::nullopt;
    return Data(std::move(text));
}

Dictionary jsonDictionaryForRelationshipNamed(const ManagedObject& object, std::string_view name,
                                              const EntityDescription& entity) {
    const RelationshipDescription* relationship = entity.relationshipNamed(name);
    if (!relationship)
        throw Exception(InvalidArgumentException, format("The entity %@ has no relationship named %@.", entity, name));
    Dictionary description{{"name", relationship->name},
                           {"destination_type", relationship->destination->managedObjectClassName()},
                           {"to_many", relationship->toMany}};
    if (relationship->toMany) {
        std::vector<Value> destinations;
        collectDestinationGuids(destinations, object, *relationship);
        std::vector<std::string_view> texts;
        for (const Value& guid : destinations) texts.push_back(*guid.asString());
        sortGuids(texts);
        Array guids;
        for (std::string_view guid : texts) guids.push_back(guid);
        description.set("destination_objects", std::move(guids));
    } else if (const auto destination = object.destination(*relationship)) {
        if (Value guid = guidOfObject(*destination); !guid.isNil()) description.set("destination_object", std::move(guid));
    }
    return description;
}

std::optional<Data> hashOfJSONData(const ManagedObject& object) {
    const auto json = objectAsJson(object);
    return json ? std::optional(sha1Hash(*json)) : std::nullopt;
}

void updatePropertiesFromJSONData(ManagedObject& object, std::optional<std::string_view> bytes) {
    if (!bytes) return;
    const auto json = CJSONDeserializer::deserializer().deserializeAsDictionary(*bytes, nullptr);
    if (!json) return;
    const Dictionary* attributes = (*json)["attributes"].asDictionary();
    updatePropertiesFromAttributes(object, attributes ? *attributes : Dictionary());
}

void updatePropertiesFromJSON(ManagedObject& object, std::string_view text) { updatePropertiesFromJSONData(object, text); }

void updatePropertiesFromAttributes(ManagedObject& object, const Dictionary& attributes) {
    const EntityDescription& entity = object.entity();
    const ObjectClass* objectClass = entity.objectClass();
    const Value names = objectClass ? objectClass->valueOfMember(VLKSyncableMember::attributesToNotSerialize, object) : Value();
    const Array* excluded = names.asArray();
    auto isExcluded = [&](std::string_view name) {
        if (!excluded) return false;
        return std::any_of(excluded->begin(), excluded->end(), [&](const Value& value) { return value.asString() == name; });
    };
    auto next = attributes.begin();  // members mostly come in the entity's order
    for (const AttributeDescription& attribute : entity.attributes()) {
        if (isExcluded(attribute.name)) continue;
        const bool inOrder = next != attributes.end() && next->key() == attribute.name;
        const Value& json = inOrder ? next++->value() : attributes[attribute.name];
        Value value = attributeValueFromJSON(attribute, json, entity.managedObjectClassName());
        if (objectClass && objectClass->setterFor(attribute.name)) {
            object.setValueForKey(value, attribute.name);
        } else {
            object.setPrimitiveValue(attribute, std::move(value));
        }
    }
}

const EntityDescription* vlk_entityInManagedObjectContext(const ObjectClass& objectClass, const ManagedObjectContext& context) {
    if (objectClass.entityFinder()) return objectClass.entityFinder()(context);
    return context.managedObjectModel().entityNamed(objectClass.name());
}

std::shared_ptr<ManagedObject> vlk_insertInManagedObjectContext(const ObjectClass& objectClass, ManagedObjectContext& context) {
    const EntityDescription* entity = vlk_entityInManagedObjectContext(objectClass, context);
    if (!entity) throw Exception(InvalidArgumentException, format("There is no entity for class %@.", objectClass.name()));
    return context.insertNewObject(*entity);
}

std::shared_ptr<ManagedObject> insertIntoMOCFromJSON(const ObjectClass& objectClass, ManagedObjectContext& context,
                                                     std::string_view text) {
    return insertIntoMOCFromJSONData(objectClass, context, text);
}

std::shared_ptr<ManagedObject> insertIntoMOCFromJSONData(const ObjectClass& objectClass, ManagedObjectContext& context,
                                                         std::optional<std::string_view> bytes) {
    auto object = vlk_insertInManagedObjectContext(objectClass, context);
    updatePropertiesFromJSONData(*object, bytes);
    return object;
}

std::shared_ptr<ManagedObject> objectForGuid(const ObjectClass& objectClass, std::string_view guid, ManagedObjectContext& context,
                                             ErrorOut error) {
    const EntityDescription* entity = vlk_entityInManagedObjectContext(objectClass, context);
    if (!entity)
        VLKLog::sharedInstance().logMessageAtLevel(100, "Unable to find entity description for object of type: %@ with guid: %@",
                                                   objectClass.name(), guid);
    FetchRequest request(entity);
    request.predicate = Predicate::equal(VLKSyncableMember::guid, guid);
    auto found = context.executeFetchRequest(request);
    if (!found) {
        setError(error, found.error());
        return nullptr;
    }
    if (!found.value().empty()) return std::move(found.value().front());
    setError(error, Error(VelkorErrorDomain, 404));
    return nullptr;
}

}  // namespace velkor
