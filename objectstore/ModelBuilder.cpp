#include <algorithm>
#include <cctype>
#include <set>

#include "objectstore/ManagedObjectModel.h"
#include "objectstore/PersistentStoreCoordinator.h"
#include "objectstore/StoredForm.h"

namespace velkor::NS {

namespace {

constexpr std::size_t mostNameBytes = 200;
constexpr std::size_t mostEntities = 1000;
constexpr std::size_t mostProperties = 1000;  // an SQLite table has at most 2000 columns

Error invalidModel(std::string_view what, std::string_view problem) {
    return Error::withDescription(PlatformErrorDomain, StoreError::incompatibleModel,
                                  "The object model is invalid: " + std::string(what) + ' ' + std::string(problem) + '.');
}

bool isName(std::string_view text) {
    const auto allowed = [](unsigned char c) { return std::isalnum(c) || c == '_' || c >= 0x80; };
    return !text.empty() && text.size() <= mostNameBytes && !std::isdigit(static_cast<unsigned char>(text[0])) &&
           std::all_of(text.begin(), text.end(), allowed) && isStorableText(text);
}

// SQLite compares names without regard to the case of ASCII letters.
std::string folded(std::string_view name) {
    std::string text(name);
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return text;
}

class NameCheck {
public:
    Result<void> add(std::string_view name, const std::string& what) {
        if (!isName(name)) return invalidModel(what, "has no proper name");
        if (!m_names.insert(folded(name)).second) return invalidModel(what, "is there twice");
        return {};
    }

private:
    std::set<std::string> m_names;
};

Result<void> checkAttribute(const AttributeDescription& attribute, const std::string& what) {
    if (attribute.defaultValue.isNil()) return {};
    if (attribute.type == AttributeType::objectID) return invalidModel(what, "cannot have a default value");
    StoredForm form;
    const std::string_view problem = form.take(attribute.type, attribute.defaultValue);
    if (!problem.empty()) return invalidModel(what, "has a default value that " + std::string(problem));
    return {};
}

/// Finds destination and inverse.
Result<void> resolve(RelationshipDescription& relationship, const EntityDescription& entity, const std::string& what) {
    relationship.entity = &entity;
    relationship.destination = entity.model().entityNamed(relationship.destinationName);
    if (!relationship.destination)
        return invalidModel(what, "leads to " + relationship.destinationName + ", which does not exist");
    if (relationship.inverseName.empty()) return {};
    const std::string inverse = relationship.destinationName + '.' + relationship.inverseName;
    relationship.inverse = relationship.destination->relationshipNamed(relationship.inverseName);
    if (!relationship.inverse) return invalidModel(what, "has the inverse " + inverse + ", which does not exist");
    if (relationship.inverse->inverseName != relationship.name || relationship.inverse->destinationName != entity.name()) {
        return invalidModel(what, "has the inverse " + inverse + ", whose inverse it is not");
    }
    return {};
}

}  // namespace

ModelBuilder::ModelBuilder() : m_model(new ManagedObjectModel) {}
ModelBuilder::~ModelBuilder() = default;

ModelBuilder::Entity ModelBuilder::entity(std::string_view name) {
    for (const auto& known : m_model->m_entities) {
        if (known->m_name == name) return Entity(*known);
    }
    auto added = std::make_unique<EntityDescription>();
    added->m_name = name;
    added->m_className = name;
    added->m_index = m_model->m_entities.size();
    m_model->m_entities.push_back(std::move(added));
    return Entity(*m_model->m_entities.back());
}

void ModelBuilder::identityAttribute(std::string_view name) { m_model->m_identityAttribute = name; }

ModelBuilder::Entity& ModelBuilder::Entity::className(std::string_view name) {
    m_entity.m_className = name;
    return *this;
}

ModelBuilder::Entity& ModelBuilder::Entity::attribute(std::string_view name, AttributeType type, bool optional,
                                                      Value defaultValue) {
    m_entity.m_attributes.push_back({std::string(name), type, optional, std::move(defaultValue), m_entity.m_attributes.size()});
    return *this;
}

ModelBuilder::Entity& ModelBuilder::Entity::toOne(std::string_view name, std::string_view destination, std::string_view inverse,
                                                  DeleteRule rule, bool optional) {
    RelationshipDescription added;
    added.name = name;
    added.destinationName = destination;
    added.inverseName = inverse;
    added.optional = optional;
    added.deleteRule = rule;
    added.index = m_entity.m_relationships.size();
    m_entity.m_relationships.push_back(std::move(added));
    return *this;
}

ModelBuilder::Entity& ModelBuilder::Entity::toMany(std::string_view name, std::string_view destination, std::string_view inverse,
                                                   DeleteRule rule, bool optional) {
    toOne(name, destination, inverse, rule, optional);
    m_entity.m_relationships.back().toMany = true;
    return *this;
}

Result<std::shared_ptr<const ManagedObjectModel>> ModelBuilder::build() {
    const std::shared_ptr<ManagedObjectModel> model =
        std::exchange(m_model, std::shared_ptr<ManagedObjectModel>(new ManagedObjectModel));
    if (!isName(model->m_identityAttribute)) return invalidModel("the identity attribute", "has no proper name");
    if (model->m_entities.size() > mostEntities) return invalidModel("it", "has too many entities");
    NameCheck entityNames;
    for (const auto& entity : model->m_entities) {
        entity->m_model = model.get();
        if (auto checked = entityNames.add(entity->m_name, "the entity " + entity->m_name); !checked) return checked.error();
        if (entity->m_className.empty()) return invalidModel("the entity " + entity->m_name, "has no class name");
        if (entity->m_attributes.size() + entity->m_relationships.size() > mostProperties) {
            return invalidModel("the entity " + entity->m_name, "has too many properties");
        }
    }
    for (const auto& entity : model->m_entities) {
        NameCheck propertyNames;
        for (const AttributeDescription& attribute : entity->m_attributes) {
            const std::string what = entity->m_name + '.' + attribute.name;
            if (auto checked = propertyNames.add(attribute.name, what); !checked) return checked.error();
            if (auto checked = checkAttribute(attribute, what); !checked) return checked.error();
        }
        for (RelationshipDescription& relationship : entity->m_relationships) {
            const std::string what = entity->m_name + '.' + relationship.name;
            if (auto checked = propertyNames.add(relationship.name, what); !checked) return checked.error();
            if (auto resolved = resolve(relationship, *entity, what); !resolved) return resolved.error();
        }
    }
    return std::shared_ptr<const ManagedObjectModel>(model);
}

}  // namespace velkor::NS
