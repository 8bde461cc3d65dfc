#pragma once

#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "objectstore/FetchRequest.h"
#include "objectstore/ManagedObjectContext.h"
#include "objectstore/ManagedObjectID.h"
#include "objectstore/ObjectSet.h"
#include "platform/base/Error.h"
#include "platform/base/Export.h"

namespace velkor {

/// All objects of the entity of that name; none when the fetch fails.
VELKOR_EXPORT std::optional<std::vector<std::shared_ptr<NS::ManagedObject>>> allEntitiesOfType(NS::ManagedObjectContext& context,
                                                                                               std::string_view entityName,
                                                                                               NS::ErrorOut error = nullptr);
/// The permanent identifiers of the objects.
VELKOR_EXPORT std::vector<std::shared_ptr<const NS::ManagedObjectID>> objectIdsForObjects(NS::ManagedObjectContext& context,
                                                                                          const NS::ObjectSet& objects);
/// The objects of these identifiers in this context. One that does not exist writes a line to the system log and raises the
/// invalid-argument exception.
VELKOR_EXPORT NS::ObjectSet objectsForObjectsWithIds(NS::ManagedObjectContext& context,
                                                     const std::vector<std::shared_ptr<const NS::ManagedObjectID>>& identifiers);
/// Null when the request fails or finds nothing.
VELKOR_EXPORT std::shared_ptr<NS::ManagedObject> firstMatchForRequest(NS::ManagedObjectContext& context,
                                                                      const NS::FetchRequest& request,
                                                                      NS::ErrorOut error = nullptr);

}  // namespace velkor
