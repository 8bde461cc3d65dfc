#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "objectstore/EntityDescription.h"
#include "objectstore/Predicate.h"

namespace velkor::NS {

struct SortDescriptor {
    std::string key;  // an attribute
    bool ascending = true;
};

/// What to fetch: an entity's objects, those that fulfil the predicate, in an order, at most so many. The entity's model has to
/// outlive it.
struct FetchRequest {
    explicit FetchRequest(const EntityDescription* fetchedEntity) : entity(fetchedEntity) {}

    /// A request without an entity fails when executed.
    const EntityDescription* entity;
    Predicate predicate = Predicate::always();
    std::vector<SortDescriptor> sortDescriptors;
    std::optional<std::size_t> limit;
    /// Relationships whose destinations are loaded along, each in one scan.
    std::vector<std::string> relationshipsToPrefetch;
};

}  // namespace velkor::NS
