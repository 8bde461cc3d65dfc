// Query helpers on store classes and objects. The entity of a class is the one of exactly its name.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "objectstore/FetchRequest.h"
#include "objectstore/ManagedObject.h"
#include "objectstore/ManagedObjectContext.h"
#include "objectstore/ObjectClass.h"
#include "platform/base/Error.h"
#include "platform/base/Export.h"

namespace velkor {

VELKOR_EXPORT const std::string& entityName(const NS::ObjectClass& objectClass) noexcept;
/// Null when the model has no entity of that name.
VELKOR_EXPORT const NS::EntityDescription* entityDescriptionInContext(const NS::ObjectClass& objectClass,
                                                                      const NS::ManagedObjectContext& context);
VELKOR_EXPORT NS::FetchRequest fetchRequestForAllObjectsInContext(const NS::ObjectClass& objectClass,
                                                                  const NS::ManagedObjectContext& context);
VELKOR_EXPORT NS::FetchRequest fetchRequestForAllObjectsInContext(const NS::ObjectClass& objectClass,
                                                                  const NS::ManagedObjectContext& context,
                                                                  std::string_view orderedByKey, bool ascending);
/// None when the fetch fails.
VELKOR_EXPORT std::optional<std::vector<std::shared_ptr<NS::ManagedObject>>> allObjectsInContext(
    const NS::ObjectClass& objectClass, NS::ManagedObjectContext& context, NS::ErrorOut error = nullptr);
/// The largest value (all bits set) when the fetch fails.
VELKOR_EXPORT std::uint64_t recordCountInContext(const NS::ObjectClass& objectClass, NS::ManagedObjectContext& context,
                                                 NS::ErrorOut error = nullptr);
/// Deletes all objects of the entity and saves the context; whether the save succeeded.
VELKOR_EXPORT bool clearTableInContext(const NS::ObjectClass& objectClass, NS::ManagedObjectContext& context);

/// The objects at the other end of a one-to-many relationship, as a request. Any other relationship, or an unknown name, fails an
/// assertion after a line in the system log.
VELKOR_EXPORT NS::FetchRequest fetchRequestForChildrenOfRelationshipNamed(const std::shared_ptr<NS::ManagedObject>& object,
                                                                          std::string_view name);
VELKOR_EXPORT NS::FetchRequest fetchRequestForChildrenOfRelationshipNamed(const std::shared_ptr<NS::ManagedObject>& object,
                                                                          std::string_view name, std::string_view orderByKey,
                                                                          bool ascending);

}  // namespace velkor
