#include "PelmoLib/NSEntityDescription+VLK.h"

#include <algorithm>

#include "PelmoLib/VLKSyncableObject.h"
#include "PelmoLib/encodings/VLKLog.h"
#include "objectstore/ManagedObjectModel.h"
#include "objectstore/PersistentStoreCoordinator.h"

namespace velkor {

using namespace NS;

namespace {

using Entities = std::vector<std::unique_ptr<EntityDescription>>;

const Entities& entitiesInContext(const ManagedObjectContext* context) {
    static const Entities none;
    if (!context || !context->persistentStoreCoordinator()) return none;
    return context->persistentStoreCoordinator()->managedObjectModel().entities();
}

bool isBlob(const AttributeDescription& attribute) noexcept { return attribute.type == AttributeType::binaryData; }

}  // namespace

const EntityDescription* entityDescriptionForClassNamed(std::string_view className, const ManagedObjectContext* context) {
    const Entities& entities = entitiesInContext(context);
    for (const auto& entity : entities) {
        if (entity->managedObjectClassName() == className) return entity.get();
    }
    VLKLog& log = VLKLog::sharedInstance();
    log.logMessageAtLevel(100, "Unable to find entity description for: %@", className);
    log.logMessageAtLevel(100, "Found the following entity descriptions:");
    for (const auto& entity : entities) log.logMessageAtLevel(100, "\t%@", entity->managedObjectClassName());
    if (!context) log.logMessageAtLevel(100, "Context is nil.");
    if (!context || !context->persistentStoreCoordinator()) log.logMessageAtLevel(100, "Store is nil");
    return nullptr;
}

bool vlk_hasBlobs(const EntityDescription& entity) noexcept {
    return std::any_of(entity.attributes().begin(), entity.attributes().end(), isBlob);
}

std::vector<std::string> vlk_blobs(const EntityDescription& entity) {
    std::vector<std::string> names;
    for (const AttributeDescription& attribute : entity.attributes()) {
        if (isBlob(attribute)) names.push_back(attribute.name);
    }
    return names;
}

bool vlk_isSyncable(const EntityDescription& entity) noexcept { return conformsToSyncableProtocol(entity.objectClass()); }

std::vector<const EntityDescription*> syncableEntityTypesInCtx(const ManagedObjectContext* context) {
    std::vector<const EntityDescription*> syncable;
    for (const auto& entity : entitiesInContext(context)) {
        if (vlk_isSyncable(*entity)) syncable.push_back(entity.get());
    }
    return syncable;
}

}  // namespace velkor
