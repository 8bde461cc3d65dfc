#include "examples/notes/Store.h"

#include <VelkorSync/NSString+UUID.h>
#include <VelkorSync/VLKSyncableObject.h>

#include <algorithm>
#include <cmath>
#include <span>

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

/// Objects with large contents that are in memory together.
constexpr std::size_t contentsTogether = 16;

bool hasContents(const NS::EntityDescription& entity) {
    return std::any_of(entity.attributes().begin(), entity.attributes().end(),
                       [](const auto& attribute) { return attribute.type == NS::AttributeType::binaryData; });
}

/// Loads the relationships that lead to large contents, or the others.
void loadRelationships(NS::ManagedObjectContext& context, const std::vector<ObjectPtr>& objects, bool toContents) {
    for (const auto& relationship : objects.front()->entity().relationships()) {
        if (hasContents(*relationship.destination) != toContents) continue;
        auto loaded = context.prefetchRelationship(objects, relationship);
        if (!loaded.ok()) throw CommandError(loaded.error().localizedDescription());
    }
}

/// Calls the block with parts of the list, one after the other.
template <class Element, class Block>
void forEachPart(const std::vector<Element>& list, const Block& block) {
    for (auto begin = list.begin(); begin != list.end();) {
        auto end = begin + std::min<std::ptrdiff_t>(contentsTogether, list.end() - begin);
        block(std::vector<Element>(begin, end));
        begin = end;
    }
}

std::vector<std::string> sortedGuids(NS::ManagedObjectContext& context, const NS::EntityDescription& entity) {
    std::vector<std::string> guids;
    const std::string attributes[] = {"guid"};
    auto listed = context.enumerateValues(NS::FetchRequest(&entity), attributes,
                                          [&](std::span<const NS::Value> values) { guids.push_back(values[0].stringOr("")); });
    if (!listed.ok()) throw CommandError(listed.error().localizedDescription());
    std::sort(guids.begin(), guids.end());
    guids.erase(std::unique(guids.begin(), guids.end()), guids.end());
    return guids;
}

}  // namespace

std::vector<ObjectPtr> allObjects(NS::ManagedObjectContext& context, std::string_view entity, std::vector<std::string> prefetch) {
    NS::FetchRequest request(entityNamed(context, entity));
    request.relationshipsToPrefetch = std::move(prefetch);
    return execute(context, request);
}

void forEachWithRelationships(NS::ManagedObjectContext& context, const std::vector<ObjectPtr>& objects,
                              const ObjectHandler& handle) {
    if (objects.empty()) return;
    loadRelationships(context, objects, false);
    forEachPart(objects, [&](const std::vector<ObjectPtr>& part) {
        loadRelationships(context, part, true);
        for (const auto& object : part) handle(object);
    });
}

void forEachByGuid(NS::ManagedObjectContext& context, std::string_view entityName, const ObjectHandler& handle) {
    const NS::EntityDescription& entity = *entityNamed(context, entityName);
    if (hasContents(entity)) {
        return forEachPart(sortedGuids(context, entity), [&](const std::vector<std::string>& guids) {
            NS::Array wanted;
            for (const auto& guid : guids) wanted.push_back(guid);
            NS::FetchRequest request(&entity);
            request.predicate = NS::Predicate::in("guid", wanted);
            request.sortDescriptors = {{"guid", true}};
            forEachWithRelationships(context, execute(context, request), handle);
        });
    }
    auto objects = allObjects(context, entityName);
    if (entity.attributeNamed("guid")) std::sort(objects.begin(), objects.end(), guidIsLess);
    forEachWithRelationships(context, objects, handle);
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

bool guidIsLess(const ObjectPtr& a, const ObjectPtr& b) { return textOf(*a, "guid") < textOf(*b, "guid"); }

NS::Date wholeSecondsNow() { return NS::Date(std::floor(NS::Date::now().timeIntervalSince1970())); }

}  // namespace notes
