#include "PelmoLib/NSManagedObjectContext+Utils.h"

#include "objectstore/ManagedObjectModel.h"
#include "platform/base/Exception.h"
#include "platform/base/Format.h"
#include "platform/base/SystemLog.h"

namespace velkor {

using namespace NS;

std::optional<std::vector<std::shared_ptr<ManagedObject>>> allEntitiesOfType(ManagedObjectContext& context,
                                                                             std::string_view entityName, ErrorOut error) {
    auto objects = context.executeFetchRequest(FetchRequest(context.managedObjectModel().entityNamed(entityName)));
    if (objects) return std::move(objects).value();
    setError(error, objects.error());
    return std::nullopt;
}

std::vector<std::shared_ptr<const ManagedObjectID>> objectIdsForObjects(ManagedObjectContext& context, const ObjectSet& objects) {
    (void)context.obtainPermanentIDsForObjects(objects.allObjects());
    std::vector<std::shared_ptr<const ManagedObjectID>> identifiers;
    identifiers.reserve(objects.size());
    for (const auto& object : objects) identifiers.push_back(object->objectID());
    return identifiers;
}

ObjectSet objectsForObjectsWithIds(ManagedObjectContext& context,
                                   const std::vector<std::shared_ptr<const ManagedObjectID>>& identifiers) {
    ObjectSet objects;
    for (const auto& identifier : identifiers) {
        auto object = context.existingObjectWithID(*identifier);
        if (!object) {
            systemLog(format("Error: %@\n%@", object.error().localizedDescription(), object.error().userInfo()));
            throw Exception(InvalidArgumentException, format("There is no object %@ to add to the set.", *identifier));
        }
        objects.insert(std::move(object).value());
    }
    return objects;
}

std::shared_ptr<ManagedObject> firstMatchForRequest(ManagedObjectContext& context, const FetchRequest& request, ErrorOut error) {
    auto objects = context.executeFetchRequest(request);
    if (!objects) {
        setError(error, objects.error());
        return nullptr;
    }
    return objects.value().empty() ? nullptr : objects.value().front();
}

}  // namespace velkor
