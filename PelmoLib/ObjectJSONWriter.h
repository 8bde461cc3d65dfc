#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "objectstore/ManagedObject.h"
#include "objectstore/ObjectClass.h"
#include "platform/base/Value.h"

namespace velkor {

class JSONWriter;

/// Writes the JSON form of store objects straight from their values. What depends on the entity alone is worked out once and kept
/// for the next object of it; so one writer serves objects of one model, on one thread at a time.
class ObjectJSONWriter {
public:
    ObjectJSONWriter();
    ~ObjectJSONWriter();

    /// Appends the object's JSON text to `out`. False, `out` as it was and a line at level 100 when a value has no JSON form. A
    /// to-many destination without a guid fails an assertion.
    bool append(std::string& out, const NS::ManagedObject& object);

private:
    struct EntityPlan;
    EntityPlan& planFor(const NS::EntityDescription& entity);
    template <class Use>
    void forEachAttribute(const NS::ManagedObject& object, const EntityPlan& plan, Use use);
    void logFailure(const NS::ManagedObject& object, const EntityPlan& plan);
    void writeAttributes(JSONWriter& writer, const NS::ManagedObject& object, const EntityPlan& plan);
    void writeRelationships(JSONWriter& writer, std::string& out, const NS::ManagedObject& object, const EntityPlan& plan);

    std::unordered_map<const NS::EntityDescription*, std::unique_ptr<EntityPlan>> m_plans;
    EntityPlan* m_lastPlan = nullptr;
    std::vector<NS::Value> m_destinations;  // kept between objects for their storage
    std::vector<std::string_view> m_guids;
};

/// The guids of a to-many relationship's destinations, in no order. One without a guid fails an assertion after two lines at
/// level 100.
void collectDestinationGuids(std::vector<NS::Value>& guids, const NS::ManagedObject& object,
                             const NS::RelationshipDescription& toMany);

}  // namespace velkor
