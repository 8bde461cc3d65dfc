#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "objectstore/EntityDescription.h"
#include "platform/base/Export.h"
#include "platform/base/Result.h"

namespace velkor::NS {

/// The entities of a store; immutable and shared by everything that uses it. Any thread.
class VELKOR_EXPORT ManagedObjectModel {
public:
    /// Reads a model resource: a property list (see docs/formats.md).
    static Result<std::shared_ptr<const ManagedObjectModel>> modelWithContentsOfFile(const std::filesystem::path& path);
    static Result<std::shared_ptr<const ManagedObjectModel>> modelFromPropertyList(const Value& plist);
    Value propertyList() const;

    const std::vector<std::unique_ptr<EntityDescription>>& entities() const noexcept { return m_entities; }
    const EntityDescription* entityNamed(std::string_view name) const noexcept;
    /// Name of the attribute by which objects are looked up; every attribute of that name has an index. "guid" unless set.
    const std::string& identityAttribute() const noexcept { return m_identityAttribute; }

private:
    friend class ModelBuilder;
    ManagedObjectModel() = default;
    std::vector<std::unique_ptr<EntityDescription>> m_entities;
    std::string m_identityAttribute = "guid";
};

/// Builds a model in code:
///     ModelBuilder builder;
///     builder.entity("Note").attribute("guid", AttributeType::string).toOne("notebook", "Notebook", "notes");
///     auto model = builder.build();
class VELKOR_EXPORT ModelBuilder {
public:
    class Entity {
    public:
        /// Class of the entity's objects; the entity's name unless set.
        Entity& className(std::string_view name);
        Entity& attribute(std::string_view name, AttributeType type, bool optional = true, Value defaultValue = {});
        /// An empty inverse name: the relationship has no inverse.
        Entity& toOne(std::string_view name, std::string_view destination, std::string_view inverse,
                      DeleteRule rule = DeleteRule::nullify, bool optional = true);
        Entity& toMany(std::string_view name, std::string_view destination, std::string_view inverse,
                       DeleteRule rule = DeleteRule::nullify, bool optional = true);

    private:
        friend class ModelBuilder;
        explicit Entity(EntityDescription& entity) : m_entity(entity) {}
        EntityDescription& m_entity;
    };

    ModelBuilder();
    ~ModelBuilder();
    /// The entity of that name, added when it is new.
    Entity entity(std::string_view name);
    void identityAttribute(std::string_view name);
    /// Checks names, default values, destinations and inverses; the builder is empty afterwards. Names consist of letters, digits
    /// and underscores, begin with no digit, and differ by more than the case of their letters.
    Result<std::shared_ptr<const ManagedObjectModel>> build();

private:
    std::shared_ptr<ManagedObjectModel> m_model;
};

}  // namespace velkor::NS
