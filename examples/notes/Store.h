// Small queries that several commands share.
#pragma once

#include <VelkorSync/Date.h>
#include <VelkorSync/ManagedObjectContext.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace notes {

using ObjectPtr = std::shared_ptr<velkor::NS::ManagedObject>;

/// All objects of the entity; `prefetch` names relationships to load along.
std::vector<ObjectPtr> allObjects(velkor::NS::ManagedObjectContext& context, std::string_view entity, std::vector<std::string> prefetch = {});
/// The object of the entity with that guid, or null.
ObjectPtr findByGuid(velkor::NS::ManagedObjectContext& context, std::string_view entity, std::string_view guid);
/// The object with that guid of any entity that is kept in step, or null.
ObjectPtr findByGuid(velkor::NS::ManagedObjectContext& context, std::string_view guid);
/// A new object with the guid, or a fresh one when none is given. Raises CommandError when the guid is taken.
ObjectPtr insertObject(velkor::NS::ManagedObjectContext& context, std::string_view entity, const std::optional<std::string>& guid = {});
/// The note; raises CommandError when there is none.
ObjectPtr requireNote(velkor::NS::ManagedObjectContext& context, std::string_view guid);

std::string textOf(const velkor::NS::ManagedObject& object, std::string_view attribute);
/// Now, in whole seconds: what is kept here survives its journey to other machines unchanged.
velkor::NS::Date wholeSecondsNow();

}  // namespace notes
