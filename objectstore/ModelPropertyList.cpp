// The model as a property list: the form of model resources and of the model that a store file keeps (docs/formats.md).
#include <algorithm>
#include <initializer_list>
#include <string>

#include "objectstore/ManagedObjectModel.h"
#include "objectstore/PersistentStoreCoordinator.h"
#include "platform/base/Array.h"
#include "platform/persistence/AtomicFile.h"
#include "platform/persistence/KeyedArchiver.h"
#include "platform/persistence/PropertyList.h"

namespace velkor::NS {

namespace {

constexpr std::uint64_t mostResourceBytes = 16 << 20;

Error badModel(const std::string& where, const std::string& problem) {
    return Error::withDescription(PlatformErrorDomain, StoreError::incompatibleModel,
                                  "The object model is invalid: " + where + ' ' + problem + '.');
}

/// Typed reading of one dictionary of the property list; remembers the first thing that is wrong.
class Reader {
public:
    Reader(const Value& value, std::string where, std::initializer_list<std::string_view> known) : m_where(std::move(where)) {
        m_members = value.asDictionary();
        if (!m_members) {
            fail("is not a dictionary");
            return;
        }
        for (const auto& member : *m_members) {
            if (std::find(known.begin(), known.end(), member.key()) == known.end())
                fail("has the unknown key " + std::string(member.key()));
        }
    }

    std::string text(std::string_view key, bool required = true) {
        const Value& value = find(key);
        if (const auto found = value.asString()) return std::string(*found);
        if (!value.isNil()) {
            fail("has no text under " + std::string(key));
        } else if (required) {
            fail("lacks the key " + std::string(key));
        }
        return {};
    }

    bool flag(std::string_view key, bool fallback) {
        const Value& value = find(key);
        if (value.isNil()) return fallback;
        if (value.kind() != Value::Kind::boolean) fail("has no boolean under " + std::string(key));
        return value.asBoolean().value_or(fallback);
    }

    Array list(std::string_view key) {
        const Value& value = find(key);
        if (const Array* found = value.asArray()) return *found;
        if (!value.isNil()) fail("has no array under " + std::string(key));
        return {};
    }

    const Value& find(std::string_view key) const {
        static const Value nothing;
        const Value* value = m_members ? m_members->find(key) : nullptr;
        return value ? *value : nothing;
    }

    void fail(const std::string& problem) {
        if (m_problem.empty()) m_problem = problem;
    }
    bool ok() const { return m_problem.empty(); }
    Error error() const { return badModel(m_where, m_problem); }

private:
    const Dictionary* m_members = nullptr;
    std::string m_where;
    std::string m_problem;
};

// Property lists keep dates without fractions and know no decimals and no archives: those have forms of their own here.
Value plistOfDefault(const AttributeDescription& attribute) {
    const Value& value = attribute.defaultValue;
    switch (attribute.type) {
        case AttributeType::date:
            return Value(value.asDate().value_or(Date()).timeIntervalSince1970());
        case AttributeType::decimal: {
            const auto text = value.asDecimal();
            return text ? Value(*text) : value;
        }
        case AttributeType::undefined:
        case AttributeType::transformable:
            return Value(archivedDataWithRootObject(value));
        default:
            return value;
    }
}

Value defaultFromPlist(AttributeType type, const Value& value, Reader& reader) {
    switch (type) {
        case AttributeType::date:
            if (const auto seconds = value.asDouble()) return Value(Date(*seconds));
            return value;
        case AttributeType::decimal: {
            const auto text = value.asString();
            return text ? Value::decimal(*text) : value;
        }
        case AttributeType::undefined:
        case AttributeType::transformable: {
            const Data* archive = value.asData();
            auto unarchived = archive ? unarchiveObjectWithData(archive->view()) : Result<Value>(Value());
            if (unarchived && !unarchived.value().isNil()) return std::move(unarchived).value();
            reader.fail("has a default that is no archive");
            return {};
        }
        default:
            return value;
    }
}

Dictionary plistOfAttribute(const AttributeDescription& attribute) {
    Dictionary plist{{"name", attribute.name}, {"type", nameOfAttributeType(attribute.type)}};
    if (!attribute.optional) plist.set("optional", false);
    if (!attribute.defaultValue.isNil()) plist.set("default", plistOfDefault(attribute));
    return plist;
}

Dictionary plistOfRelationship(const RelationshipDescription& relationship) {
    Dictionary plist{{"name", relationship.name}, {"destination", relationship.destinationName}};
    if (!relationship.inverseName.empty()) plist.set("inverse", relationship.inverseName);
    if (relationship.toMany) plist.set("toMany", true);
    if (!relationship.optional) plist.set("optional", false);
    plist.set("deleteRule", nameOfDeleteRule(relationship.deleteRule));
    return plist;
}

Result<void> addAttribute(ModelBuilder::Entity& entity, const Value& plist, const std::string& where) {
    Reader reader(plist, where, {"name", "type", "optional", "default"});
    const std::string name = reader.text("name");
    const std::string typeName = reader.text("type");
    const auto type = attributeTypeNamed(typeName);
    if (!type) reader.fail("has the unknown type " + typeName);
    const bool optional = reader.flag("optional", true);
    Value defaultValue = reader.find("default");
    if (type && !defaultValue.isNil()) defaultValue = defaultFromPlist(*type, defaultValue, reader);
    if (!reader.ok()) return reader.error();
    entity.attribute(name, *type, optional, std::move(defaultValue));
    return {};
}

Result<void> addRelationship(ModelBuilder::Entity& entity, const Value& plist, const std::string& where) {
    Reader reader(plist, where, {"name", "destination", "inverse", "toMany", "optional", "deleteRule"});
    const std::string name = reader.text("name");
    const std::string destination = reader.text("destination");
    const std::string inverse = reader.text("inverse", false);
    const bool toMany = reader.flag("toMany", false);
    const bool optional = reader.flag("optional", true);
    const std::string ruleName = reader.text("deleteRule", false);
    const auto rule = ruleName.empty() ? DeleteRule::nullify : deleteRuleNamed(ruleName);
    if (!rule) reader.fail("has the unknown delete rule " + ruleName);
    if (!reader.ok()) return reader.error();
    if (toMany) {
        entity.toMany(name, destination, inverse, *rule, optional);
    } else {
        entity.toOne(name, destination, inverse, *rule, optional);
    }
    return {};
}

Result<std::string> addEntity(ModelBuilder& builder, const Value& plist, const std::string& where) {
    Reader reader(plist, where, {"name", "className", "attributes", "relationships"});
    const std::string name = reader.text("name");
    const std::string className = reader.text("className", false);
    const Array attributes = reader.list("attributes");
    const Array relationships = reader.list("relationships");
    if (!reader.ok()) return reader.error();
    ModelBuilder::Entity entity = builder.entity(name);
    if (!className.empty()) entity.className(className);
    for (const Value& attribute : attributes) {
        if (auto added = addAttribute(entity, attribute, "an attribute of " + name); !added) return added.error();
    }
    for (const Value& relationship : relationships) {
        if (auto added = addRelationship(entity, relationship, "a relationship of " + name); !added) return added.error();
    }
    return name;
}

}  // namespace

Value ManagedObjectModel::propertyList() const {
    Array entities;
    for (const auto& entity : m_entities) {
        Array attributes, relationships;
        for (const AttributeDescription& attribute : entity->attributes()) attributes.push_back(plistOfAttribute(attribute));
        for (const RelationshipDescription& relationship : entity->relationships())
            relationships.push_back(plistOfRelationship(relationship));
        entities.push_back(Dictionary{{"name", entity->name()},
                                      {"className", entity->managedObjectClassName()},
                                      {"attributes", attributes},
                                      {"relationships", relationships}});
    }
    return Dictionary{{"identityAttribute", m_identityAttribute}, {"entities", entities}};
}

Result<std::shared_ptr<const ManagedObjectModel>> ManagedObjectModel::modelFromPropertyList(const Value& plist) {
    Reader reader(plist, "its property list", {"identityAttribute", "entities"});
    const std::string identity = reader.text("identityAttribute", false);
    const Array entities = reader.list("entities");
    if (reader.find("entities").isNil()) reader.fail("lacks the key entities");
    if (!reader.ok()) return reader.error();
    ModelBuilder builder;
    if (!identity.empty()) builder.identityAttribute(identity);
    std::size_t number = 0;
    for (const Value& entity : entities) {
        auto added = addEntity(builder, entity, "entity " + std::to_string(++number));
        if (!added) return added.error();
    }
    auto model = builder.build();
    if (model && model.value()->entities().size() != entities.size()) return badModel("an entity", "is there twice");
    return model;
}

Result<std::shared_ptr<const ManagedObjectModel>> ManagedObjectModel::modelWithContentsOfFile(const std::filesystem::path& path) {
    auto bytes = readFile(path, mostResourceBytes);
    if (!bytes) return bytes.error();
    auto plist = propertyListFromBytes(bytes.value().view());
    if (!plist) return plist.error();
    return modelFromPropertyList(plist.value());
}

}  // namespace velkor::NS
