// The protocol of store classes whose objects take part in sync.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "objectstore/ManagedObject.h"
#include "objectstore/ObjectClass.h"
#include "platform/base/Array.h"
#include "platform/base/Export.h"

namespace velkor {

/// A class adopts it with `NS::ObjectClass::adopt(VLKSyncableObject)`; its entity has a string attribute `guid`. The optional
/// members below are declared with `answersWithAttribute` or `answers`; what is not declared, the class does not respond to.
inline constexpr std::string_view VLKSyncableObject = "VLKSyncableObject";

namespace VLKSyncableMember {
inline constexpr std::string_view guid = "guid";
inline constexpr std::string_view expired = "expired";                                              // boolean
inline constexpr std::string_view doNotSynchronize = "doNotSynchronize";                            // boolean
inline constexpr std::string_view attributesToNotSerialize = "attributesToNotSerialize";            // array of names
inline constexpr std::string_view relationshipsToNotSerialize = "relationshipsToNotSerialize";      // array of names
inline constexpr std::string_view relationshipsToNotDeSerialize = "relationshipsToNotDeSerialize";  // array of names
}  // namespace VLKSyncableMember

/// NO for a null class.
VELKOR_EXPORT bool conformsToSyncableProtocol(const NS::ObjectClass* objectClass) noexcept;
/// Whether objects of this entity's class answer `guid`: an attribute of that name, or a member that the class declares.
VELKOR_EXPORT bool respondsToGuid(const NS::ManagedObject& object) noexcept;
/// The text under `guid`; a nil value when the object has none or does not respond to it. No copy of the text is made.
VELKOR_EXPORT NS::Value guidOfObject(const NS::ManagedObject& object);
/// Whether the object takes `setExpired:`: its class registered a setter of that name, or says that its `expired` is an
/// attribute, and its entity has it.
VELKOR_EXPORT bool respondsToSetExpired(const NS::ManagedObject& object) noexcept;
/// Does it; the object responds to it.
VELKOR_EXPORT void setExpired(NS::ManagedObject& object, bool expired);

}  // namespace velkor
