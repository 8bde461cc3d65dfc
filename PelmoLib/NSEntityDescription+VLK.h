// What sync needs to know of the host's model: an entity by its class, which entities take part, which attributes are blobs.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "objectstore/EntityDescription.h"
#include "objectstore/ManagedObjectContext.h"
#include "platform/base/Export.h"

namespace velkor {

/// The first entity of the context's model whose class name is exactly this one; null, with lines at level 100, when there is
/// none.
VELKOR_EXPORT const NS::EntityDescription* entityDescriptionForClassNamed(std::string_view className,
                                                                          const NS::ManagedObjectContext* context);

/// Whether any attribute holds binary data.
VELKOR_EXPORT bool vlk_hasBlobs(const NS::EntityDescription& entity) noexcept;
/// The names of the attributes that hold binary data, in the entity's order.
VELKOR_EXPORT std::vector<std::string> vlk_blobs(const NS::EntityDescription& entity);

/// Whether the entity's class is registered and adopts VLKSyncableObject.
VELKOR_EXPORT bool vlk_isSyncable(const NS::EntityDescription& entity) noexcept;
/// The syncable entities of the context's model, in the model's order; none for a null context.
VELKOR_EXPORT std::vector<const NS::EntityDescription*> syncableEntityTypesInCtx(const NS::ManagedObjectContext* context);

}  // namespace velkor
