#include "PelmoLib/NSManagedObject+Utils.h"

#include <limits>

#include "PelmoLib/NSManagedObjectContext+Utils.h"
#include "objectstore/ManagedObjectModel.h"
#include "platform/base/Exception.h"
#include "platform/base/Format.h"

namespace velkor {

using namespace NS;

const std::string& entityName(const ObjectClass& objectClass) noexcept { return objectClass.name(); }

const EntityDescription* entityDescriptionInContext(const ObjectClass& objectClass, const ManagedObjectContext& context) {
    return context.managedObjectModel().entityNamed(entityName(objectClass));
}

FetchRequest fetchRequestForAllObjectsInContext(const ObjectClass& objectClass, const ManagedObjectContext& context) {
    return FetchRequest(entityDescriptionInContext(objectClass, context));
}

FetchRequest fetchRequestForAllObjectsInContext(const ObjectClass& objectClass, const ManagedObjectContext& context,
                                                std::string_view orderedByKey, bool ascending) {
    FetchRequest request = fetchRequestForAllObjectsInContext(objectClass, context);
    request.sortDescriptors.push_back({std::string(orderedByKey), ascending});
    return request;
}

std::optional<std::vector<std::shared_ptr<ManagedObject>>> allObjectsInContext(const ObjectClass& objectClass,
                                                                               ManagedObjectContext& context, ErrorOut error) {
    return allEntitiesOfType(context, entityName(objectClass), error);
}

std::uint64_t recordCountInContext(const ObjectClass& objectClass, ManagedObjectContext& context, ErrorOut error) {
    auto count = context.countForFetchRequest(fetchRequestForAllObjectsInContext(objectClass, context));
    if (count) return count.value();
    setError(error, count.error());
    return std::numeric_limits<std::uint64_t>::max();
}

bool clearTableInContext(const ObjectClass& objectClass, ManagedObjectContext& context) {
    if (const auto objects = allObjectsInContext(objectClass, context)) {
        for (const auto& object : *objects) context.deleteObject(object);
    }
    return context.save().ok();
}

FetchRequest fetchRequestForChildrenOfRelationshipNamed(const std::shared_ptr<ManagedObject>& object, std::string_view name) {
    const RelationshipDescription* relationship = object->entity().relationshipNamed(name);
    if (!relationship) failAssertion(format("Relationship '%@' does not exist", name));
    const bool oneToMany = relationship->toMany && relationship->inverse && !relationship->inverse->toMany;
    assertThat(oneToMany, "Relationship is not a one-to-many relationship.");
    FetchRequest request(relationship->destination);
    request.predicate = Predicate::equal(relationship->inverse->name, object);
    return request;
}

FetchRequest fetchRequestForChildrenOfRelationshipNamed(const std::shared_ptr<ManagedObject>& object, std::string_view name,
                                                        std::string_view orderByKey, bool ascending) {
    FetchRequest request = fetchRequestForChildrenOfRelationshipNamed(object, name);
    request.sortDescriptors.push_back({std::string(orderByKey), ascending});
    return request;
}

}  // namespace velkor
