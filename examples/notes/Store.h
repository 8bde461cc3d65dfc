// Small queries that several commands share.
#pragma once

#include <VelkorSync/Date.h>
#include <VelkorSync/ManagedObjectContext.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace notes {

using ObjectPtr = std::shared_ptr<velkor::NS::ManagedObject>;

/// All objects of the entity; `prefetch` names relationships to load along.
std::vector<ObjectPtr> allObjects(velkor::NS::ManagedObjectContext& context, std::string_view entity,
                                  std::vector<std::string> prefetch = {});
using ObjectHandler = std::function<void(const ObjectPtr&)>;
/// Hands the objects of one entity over in their order, with their relationships loaded; of what these lead to, only a few large
/// contents are in memory at a time.
void forEachWithRelationships(velkor::NS::ManagedObjectContext& context, const std::vector<ObjectPtr>& objects,
                              const ObjectHandler& handle);
/// The same for all objects of the entity, sorted by guid; of their own large contents, too, only a few are in memory.
void forEachByGuid(velkor::NS::ManagedObjectContext& context, std::string_view entity, const ObjectHandler& handle);
/// The object of the entity with that guid, or null.
ObjectPtr findByGuid(velkor::NS::ManagedObjectContext& context, std::string_view entity, std::string_view guid);
/// The object with that guid of any entity that is kept in step, or null.
ObjectPtr findByGuid(velkor::NS::ManagedObjectContext& context, std::string_view guid);
/// A new object with the guid, or a fresh one when none is given. Raises CommandError when the guid is taken.
ObjectPtr insertObject(velkor::NS::ManagedObjectContext& context, std::string_view entity,
                       const std::optional<std::string>& guid = {});
/// The note; raises CommandError when there is none.
ObjectPtr requireNote(velkor::NS::ManagedObjectContext& context, std::string_view guid);

std::string textOf(const velkor::NS::ManagedObject& object, std::string_view attribute);
/// The order of `dump` and `export`.
bool guidIsLess(const ObjectPtr& a, const ObjectPtr& b);
/// Now, in whole seconds: what is kept here survives its journey to other machines unchanged.
velkor::NS::Date wholeSecondsNow();

}  // namespace notes
