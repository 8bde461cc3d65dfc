#include "examples/notes/Store.h"

#include <VelkorSync/NSString+UUID.h>
#include <VelkorSync/VLKSyncableObject.h>

#include <cmath>

#include "examples/notes/Options.h"

namespace notes {

using namespace velkor;

namespace {

std::vector<ObjectPtr> execute(NS::ManagedObjectContext& context, const NS::FetchRequest& request) {
    auto found = context.executeFetchRequest(request);
    if (!found.ok()) throw CommandError(found.error().localizedDescription());
    return std::move(found).value();
}

const NS::EntityDescription* entityNamed(NS::ManagedObjectContext& context, std::string_view name) {
    return context.managedObjectModel().entityNamed(name);
}

}  // namespace

std::vector<ObjectPtr> allObjects(NS::ManagedObjectContext& context, std::string_view entity, std::vector<std::string> prefetch) {
    NS::FetchRequest request(entityNamed(context, entity));
    request.relationshipsToPrefetch = std::move(prefetch);
    return execute(context, request);
}

ObjectPtr findByGuid(NS::ManagedObjectContext& context, std::string_view entity, std::string_view guid) {
    NS::FetchRequest request(entityNamed(context, entity));
    request.predicate = NS::Predicate::equal("guid", guid);
    request.limit = 1;
    auto found = execute(context, request);
    return found.empty() ? nullptr : found.front();
}

ObjectPtr findByGuid(NS::ManagedObjectContext& context, std::string_view guid) {
    for (const auto& entity : context.managedObjectModel().entities()) {
        if (!entity->attributeNamed("guid")) continue;
        if (auto object = findByGuid(context, entity->name(), guid)) return object;
    }
    return nullptr;
}

ObjectPtr insertObject(NS::ManagedObjectContext& context, std::string_view entity, const std::optional<std::string>& guid) {
    if (guid && guid->empty()) throw UsageError("--guid must not be empty");
    if (guid && findByGuid(context, *guid)) throw CommandError("an object with the guid " + *guid + " exists already");
    auto object = context.insertNewObject(*entityNamed(context, entity));
    object->setValueForKey(guid ? *guid : stringWithUUID(), "guid");
    return object;
}

ObjectPtr requireNote(NS::ManagedObjectContext& context, std::string_view guid) {
    auto note = findByGuid(context, "Note", guid);
    if (!note) throw CommandError("there is no note with the guid " + std::string(guid));
    return note;
}

std::string textOf(const NS::ManagedObject& object, std::string_view attribute) {
    return object.valueForKey(attribute).stringOr("");
}

NS::Date wholeSecondsNow() { return NS::Date(std::floor(NS::Date::now().timeIntervalSince1970())); }

}  // namespace notes
