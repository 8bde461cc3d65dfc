#include "PelmoLib/ObjectJSONWriter.h"

#include "PelmoLib/NSManagedObject+JSON.h"
#include "PelmoLib/VLKSyncableObject.h"
#include "PelmoLib/encodings/GuidOrder.h"
#include "PelmoLib/encodings/VLKLog.h"
#include "json/CJSONDataSerializer.h"
#include "json/JSONWriter.h"
#include "platform/base/Exception.h"

namespace velkor {

using namespace NS;

namespace {

bool contains(const Array* names, std::string_view name) {
    if (!names) return false;
    for (const Value& excluded : *names) {
        if (excluded.asString() == name) return true;
    }
    return false;
}

/// The collection of names that an optional member of the object's class gives; nil where the class lacks it.
Value namesFrom(bool responds, const ManagedObject& object, std::string_view member) {
    return responds ? object.entity().objectClass()->valueOfMember(member, object) : Value();
}

}  // namespace

struct ObjectJSONWriter::EntityPlan {
    struct Attribute {
        const AttributeDescription* description;
        const ObjectClass::Getter* getter;  // the host's own, or null
    };
    struct Relationship {
        const RelationshipDescription* description;
        std::string opening;  // {"name":...,"destination_type":...,"to_many":...
    };
    explicit EntityPlan(const EntityDescription& described) : entity(&described) {
        const ObjectClass* objectClass = described.objectClass();
        excludesAttributes = objectClass && objectClass->respondsTo(VLKSyncableMember::attributesToNotSerialize);
        excludesRelationships = objectClass && objectClass->respondsTo(VLKSyncableMember::relationshipsToNotSerialize);
        for (const AttributeDescription& attribute : described.attributes()) {
            if (attribute.type == AttributeType::binaryData) continue;
            attributes.push_back({&attribute, objectClass ? objectClass->getterFor(attribute.name) : nullptr});
        }
        for (const RelationshipDescription& relationship : described.relationships()) {
            std::string opening;
            JSONWriter writer(opening);
            writer.beginObject();
            writer.member("name", relationship.name);
            writer.member("destination_type", relationship.destination->managedObjectClassName());
            writer.member("to_many", relationship.toMany);
            relationships.push_back({&relationship, std::move(opening)});
        }
    }

    const EntityDescription* entity;
    bool excludesAttributes = false;
    bool excludesRelationships = false;
    std::vector<Attribute> attributes;
    std::vector<Relationship> relationships;
};

ObjectJSONWriter::ObjectJSONWriter() = default;
ObjectJSONWriter::~ObjectJSONWriter() = default;

ObjectJSONWriter::EntityPlan& ObjectJSONWriter::planFor(const EntityDescription& entity) {
    if (!m_lastPlan || m_lastPlan->entity != &entity) {
        auto& plan = m_plans[&entity];
        if (!plan) plan = std::make_unique<EntityPlan>(entity);
        m_lastPlan = plan.get();
    }
    return *m_lastPlan;
}

bool ObjectJSONWriter::append(std::string& out, const ManagedObject& object) {
    const std::size_t start = out.size();
    const EntityPlan& plan = planFor(object.entity());
    JSONWriter writer(out);
    writer.beginObject();
    writeAttributes(writer, object, plan);
    writeRelationships(writer, out, object, plan);
    writer.endObject();
    if (writer.ok()) return true;
    out.resize(start);
    logFailure(object, plan);
    return false;
}

/// Tells what the JSON codec says of the object's form as a value.
void ObjectJSONWriter::logFailure(const ManagedObject& object, const EntityPlan& plan) {
    Dictionary attributes, relationships;
    forEachAttribute(object, plan, [&](std::string_view name, const Value& value) { attributes.set(name, value); });
    const Value names = namesFrom(plan.excludesRelationships, object, VLKSyncableMember::relationshipsToNotSerialize);
    for (const RelationshipDescription& relationship : object.entity().relationships()) {
        if (contains(names.asArray(), relationship.name)) continue;
        relationships.set(relationship.name, jsonDictionaryForRelationshipNamed(object, relationship.name, object.entity()));
    }
    std::optional<Error> error;
    (void)CJSONDataSerializer::serializer().serializeDictionary(
        Dictionary{{"attributes", std::move(attributes)}, {"relationships", std::move(relationships)}}, &error);
    if (error) VLKLog::sharedInstance().logMessageAtLevel(100, "Error serializing object: %@", error->localizedDescription());
}

template <class Use>
void ObjectJSONWriter::forEachAttribute(const ManagedObject& object, const EntityPlan& plan, Use use) {
    const Value names = namesFrom(plan.excludesAttributes, object, VLKSyncableMember::attributesToNotSerialize);
    const Array* excluded = names.asArray();
    for (const auto& [attribute, getter] : plan.attributes) {
        const Value own = getter ? (*getter)(object) : Value();
        const Value& value = getter ? own : object.primitiveValue(*attribute);
        if (!value.isNil() && !contains(excluded, attribute->name)) use(attribute->name, value);
    }
}

void ObjectJSONWriter::writeAttributes(JSONWriter& writer, const ManagedObject& object, const EntityPlan& plan) {
    writer.key("attributes");
    writer.beginObject();
    forEachAttribute(object, plan, [&](std::string_view name, const Value& value) { writer.member(name, value); });
    writer.endObject();
}

void ObjectJSONWriter::writeRelationships(JSONWriter& writer, std::string& out, const ManagedObject& object,
                                          const EntityPlan& plan) {
    const Value names = namesFrom(plan.excludesRelationships, object, VLKSyncableMember::relationshipsToNotSerialize);
    const Array* excluded = names.asArray();
    writer.key("relationships");
    writer.beginObject();
    for (const auto& [relationship, opening] : plan.relationships) {
        if (contains(excluded, relationship->name)) continue;
        writer.key(relationship->name);
        writer.raw(opening);
        if (relationship->toMany) {
            collectDestinationGuids(m_destinations, object, *relationship);
            m_guids.clear();
            for (const Value& guid : m_destinations) m_guids.push_back(*guid.asString());
            sortGuids(m_guids);
            writer.key("destination_objects");
            writer.beginArray();
            for (std::string_view guid : m_guids) writer.string(guid);
            writer.endArray();
        } else if (const auto destination = object.destination(*relationship)) {
            if (const Value guid = guidOfObject(*destination); !guid.isNil()) writer.member("destination_object", guid);
        }
        out.push_back('}');
    }
    writer.endObject();
}

void collectDestinationGuids(std::vector<Value>& guids, const ManagedObject& object, const RelationshipDescription& toMany) {
    guids.clear();
    for (const auto& destination : object.destinations(toMany)) {
        Value guid = guidOfObject(*destination);
        if (guid.isNil()) {
            VLKLog& log = VLKLog::sharedInstance();
            log.logMessageAtLevel(100, "Attempting to serialize relationship: %@ from object %@, but destination has no guid. %@",
                                  toMany.name, guidOfObject(object), *destination);
            log.logMessageAtLevel(100, "I will crash now.");
            failAssertion("A destination of a serialized relationship has no guid.");
        }
        guids.push_back(std::move(guid));
    }
}

}  // namespace velkor
