#include "objectstore/sqlite/MigrationPlan.h"

#include <algorithm>

#include "objectstore/sqlite/StoreFailure.h"

namespace velkor::NS::sqlite {

namespace {

/// Types that can hold every value of the first one.
bool losesNothing(AttributeType from, AttributeType to) {
    using enum AttributeType;
    const auto oneOf = [to](std::initializer_list<AttributeType> types) {
        return std::find(types.begin(), types.end(), to) != types.end();
    };
    if (from == to) return true;
    switch (from) {
        case boolean:
            return oneOf({integer16, integer32, integer64, decimal, floatType, doubleType});
        case integer16:
            return oneOf({integer32, integer64, decimal, floatType, doubleType, string});
        case integer32:
            return oneOf({integer64, decimal, doubleType, string});
        case integer64:
            return oneOf({decimal, string});
        case floatType:
            return oneOf({doubleType});
        case decimal:
            return oneOf({string});
        case undefined:
            return oneOf({transformable});
        default:
            return false;
    }
}

class Inference {
public:
    Inference(const StoreSchema& from, const StoreSchema& to, const std::filesystem::path& file)
        : m_from(from), m_to(to), m_file(file) {}

    Result<MigrationPlan> run() {
        for (std::size_t i = 0; i < m_to.tableCount(); ++i) {
            const EntityTable& table = m_to.table(i);
            const EntityDescription* known = m_from.model().entityNamed(table.entity->name());
            if (!known) {
                m_plan.created.push_back(&table);
            } else if (auto inferred = inferEntity(m_from.table(known->index()), table); !inferred) {
                return inferred.error();
            }
        }
        for (std::size_t i = 0; i < m_from.tableCount(); ++i) {
            const EntityTable& table = m_from.table(i);
            if (!m_to.model().entityNamed(table.entity->name())) m_plan.dropped.push_back(&table);
        }
        return std::move(m_plan);
    }

private:
    Error impossible(const EntityTable& table, std::string_view property, const std::string& why) const {
        return storeFileError(StoreError::incompatibleModel, m_file,
                              "cannot be migrated: " + table.entity->name() + '.' + std::string(property) + ' ' + why);
    }

    Result<void> inferEntity(const EntityTable& from, const EntityTable& to) {
        EntityStep step{&from, &to, {}, false};
        for (const AttributeDescription& attribute : to.entity->attributes()) {
            if (auto inferred = inferAttribute(step, attribute); !inferred) return inferred;
        }
        for (const RelationshipDescription& relationship : to.entity->relationships()) {
            if (auto inferred = inferRelationship(step, relationship); !inferred) return inferred;
        }
        for (const Column& column : from.columns) {
            const Column* kept = to.columnNamed(column.property);
            if (column.content != Column::Content::none && !kept) step.columnsLost = true;
        }
        if (step.changes()) m_plan.changed.push_back(std::move(step));
        return {};
    }

    Result<void> inferAttribute(EntityStep& step, const AttributeDescription& attribute) {
        EntityStep::Source source{step.to->columnNamed(attribute.name), {}, {}, !attribute.optional};
        if (step.from->entity->relationshipNamed(attribute.name)) {
            return impossible(*step.to, attribute.name, "was a relationship and is an attribute now");
        }
        const AttributeDescription* known = step.from->entity->attributeNamed(attribute.name);
        if (!known) {
            source.fill = attribute.defaultValue;
        } else {
            if (!losesNothing(known->type, attribute.type)) {
                return impossible(*step.to, attribute.name,
                                  "cannot change from " + std::string(nameOfAttributeType(known->type)) + " to " +
                                      std::string(nameOfAttributeType(attribute.type)) + " without loss");
            }
            source.required = source.required && known->optional;
            if (source.required) source.fill = attribute.defaultValue;
            const Column* old = step.from->columnNamed(attribute.name);
            const bool sameForm = old->declaredType() == source.column->declaredType();
            // A whole number's text is the same as a decimal and as a string.
            const bool asText = !sameForm && source.column->declaredType() == "TEXT";
            source.expression = asText ? "CAST(" + old->name + " AS TEXT)" : old->name;
            step.columnsLost = step.columnsLost || !sameForm;
        }
        step.sources.push_back(std::move(source));
        return {};
    }

    Result<void> inferRelationship(EntityStep& step, const RelationshipDescription& relationship) {
        if (step.from->entity->attributeNamed(relationship.name)) {
            return impossible(*step.to, relationship.name, "was an attribute and is a relationship now");
        }
        const RelationshipDescription* known = step.from->entity->relationshipNamed(relationship.name);
        if (known && known->destinationName != relationship.destinationName) {
            return impossible(*step.to, relationship.name, "cannot change its destination");
        }
        if (known && known->toMany != relationship.toMany) {
            return impossible(*step.to, relationship.name, "cannot change between to-one and to-many");
        }
        if (known && known->manyToMany() != relationship.manyToMany()) {
            return impossible(*step.to, relationship.name, "cannot change between one-to-many and many-to-many");
        }
        const RelationshipDescription* inverse = relationship.inverse;
        const bool oneToOne = !relationship.toMany && inverse && !inverse->toMany;
        if (known && oneToOne && !(known->inverse && known->inverseName == relationship.inverseName)) {
            return impossible(*step.to, relationship.name, "cannot become one side of a one-to-one relationship");
        }
        if (relationship.manyToMany()) {
            if (known) addJoins(*known, relationship);
        } else if (!relationship.toMany) {
            const Column* column = step.to->columnNamed(relationship.name);
            const bool required = !relationship.optional && (!known || known->optional);
            step.sources.push_back({column, known ? column->name : std::string(), {}, required});
        }
        return {};
    }

    void addJoins(const RelationshipDescription& known, const RelationshipDescription& relationship) {
        const bool swapped = linkTable(known).owner != linkTable(relationship).owner;
        addJoin({joinTableName(known), joinTableName(relationship), swapped});
        // Links of a relationship that is its own inverse hold in both directions.
        const bool becomesOwnInverse = relationship.inverse == &relationship && known.inverse != &known;
        if (becomesOwnInverse) addJoin({joinTableName(known), joinTableName(relationship), !swapped});
    }

    void addJoin(JoinStep step) {
        const auto same = [&](const JoinStep& other) {
            return other.from == step.from && other.to == step.to && other.swapped == step.swapped;
        };
        if (std::none_of(m_plan.joins.begin(), m_plan.joins.end(), same)) m_plan.joins.push_back(std::move(step));
    }

    const StoreSchema& m_from;
    const StoreSchema& m_to;
    const std::filesystem::path& m_file;
    MigrationPlan m_plan;
};

}  // namespace

bool EntityStep::changes() const noexcept {
    return columnsLost || std::any_of(sources.begin(), sources.end(),
                                      [](const Source& source) { return source.expression.empty() || source.required; });
}

bool EntityStep::onlyAdds() const noexcept {
    return !columnsLost && std::none_of(sources.begin(), sources.end(),
                                        [](const Source& source) { return source.required || !source.fill.isNil(); });
}

Result<MigrationPlan> MigrationPlan::infer(const StoreSchema& from, const StoreSchema& to, const std::filesystem::path& file) {
    return Inference(from, to, file).run();
}

}  // namespace velkor::NS::sqlite
