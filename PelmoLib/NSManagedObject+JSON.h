// The JSON form of a store object, and objects by their guid.
#pragma once

#include <memory>
#include <optional>
#include <string_view>

#include "objectstore/ManagedObject.h"
#include "objectstore/ManagedObjectContext.h"
#include "objectstore/ObjectClass.h"
#include "platform/base/Data.h"
#include "platform/base/Dictionary.h"
#include "platform/base/Error.h"
#include "platform/base/Export.h"

namespace velkor {

/// {"attributes":{...},"relationships":{...}} as UTF-8 text; none (with a line at level 100) when a value has no JSON form. A
/// to-many destination without a guid fails an assertion after two lines at level 100.
VELKOR_EXPORT std::optional<NS::Data> objectAsJson(const NS::ManagedObject& object);
/// The relationship's description: "name", "destination_type", "to_many" and the guids of its destinations.
VELKOR_EXPORT NS::Dictionary jsonDictionaryForRelationshipNamed(const NS::ManagedObject& object, std::string_view name,
                                                                const NS::EntityDescription& entity);
/// SHA-1 (20 bytes) of `objectAsJson`; none when that is none.
VELKOR_EXPORT std::optional<NS::Data> hashOfJSONData(const NS::ManagedObject& object);

/// Sets every attribute of the object from the text's "attributes", those that it lacks to nil, except the names in the object's
/// `attributesToNotSerialize`. Text that is no JSON object (or none) changes nothing.
VELKOR_EXPORT void updatePropertiesFromJSONData(NS::ManagedObject& object, std::optional<std::string_view> bytes);
VELKOR_EXPORT void updatePropertiesFromJSON(NS::ManagedObject& object, std::string_view text);
/// The same with the "attributes" of a text that has been parsed already.
VELKOR_EXPORT void updatePropertiesFromAttributes(NS::ManagedObject& object, const NS::Dictionary& attributes);

/// The entity of the class: what its entity finder says, else the entity of the class's name. Null when there is none.
VELKOR_EXPORT const NS::EntityDescription* vlk_entityInManagedObjectContext(const NS::ObjectClass& objectClass,
                                                                            const NS::ManagedObjectContext& context);
/// A new object of that entity; raises the invalid-argument exception when there is none.
VELKOR_EXPORT std::shared_ptr<NS::ManagedObject> vlk_insertInManagedObjectContext(const NS::ObjectClass& objectClass,
                                                                                  NS::ManagedObjectContext& context);
VELKOR_EXPORT std::shared_ptr<NS::ManagedObject> insertIntoMOCFromJSON(const NS::ObjectClass& objectClass,
                                                                       NS::ManagedObjectContext& context, std::string_view text);
VELKOR_EXPORT std::shared_ptr<NS::ManagedObject> insertIntoMOCFromJSONData(const NS::ObjectClass& objectClass,
                                                                           NS::ManagedObjectContext& context,
                                                                           std::optional<std::string_view> bytes);

/// An object of the class's entity with exactly this guid, or null; then the error is the fetch's, or code 404 of the library's
/// domain when no object has it.
VELKOR_EXPORT std::shared_ptr<NS::ManagedObject> objectForGuid(const NS::ObjectClass& objectClass, std::string_view guid,
                                                               NS::ManagedObjectContext& context, NS::ErrorOut error = nullptr);

template <class T>
std::shared_ptr<T> objectForGuid(std::string_view guid, NS::ManagedObjectContext& context, NS::ErrorOut error = nullptr) {
    return std::static_pointer_cast<T>(objectForGuid(*NS::ObjectClass::of<T>(), guid, context, error));
}
template <class T>
std::shared_ptr<T> vlk_insertInManagedObjectContext(NS::ManagedObjectContext& context) {
    return std::static_pointer_cast<T>(vlk_insertInManagedObjectContext(*NS::ObjectClass::of<T>(), context));
}

}  // namespace velkor
