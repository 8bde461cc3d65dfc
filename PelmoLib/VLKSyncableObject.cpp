#include "PelmoLib/VLKSyncableObject.h"

namespace velkor {

using namespace NS;

bool conformsToSyncableProtocol(const ObjectClass* objectClass) noexcept {
    return objectClass && objectClass->conformsTo(VLKSyncableObject);
}

bool respondsToGuid(const ManagedObject& object) noexcept {
    return object.entity().attributeNamed(VLKSyncableMember::guid) || object.respondsTo(VLKSyncableMember::guid);
}

Value guidOfObject(const ManagedObject& object) {
    const ObjectClass* objectClass = object.entity().objectClass();
    Value guid;
    if (const AttributeDescription* attribute = object.entity().attributeNamed(VLKSyncableMember::guid)) {
        const auto* getter = objectClass ? objectClass->getterFor(VLKSyncableMember::guid) : nullptr;
        guid = getter ? (*getter)(object) : object.primitiveValue(*attribute);
    } else if (objectClass) {
        guid = objectClass->valueOfMember(VLKSyncableMember::guid, object);
    }
    return guid.isString() ? guid : Value();
}

bool respondsToSetExpired(const ManagedObject& object) noexcept {
    const ObjectClass* objectClass = object.entity().objectClass();
    if (!objectClass) return false;
    if (objectClass->setterFor(VLKSyncableMember::expired)) return true;
    const ObjectClass::Member* expired = objectClass->member(VLKSyncableMember::expired);
    return expired && expired->isAttribute && object.entity().attributeNamed(VLKSyncableMember::expired);
}

void setExpired(ManagedObject& object, bool expired) {
    if (const auto* setter = object.entity().objectClass()->setterFor(VLKSyncableMember::expired)) {
        (*setter)(object, expired);  // which needs no attribute of that name
    } else {
        object.setPrimitiveValue(VLKSyncableMember::expired, expired);
    }
}

}  // namespace velkor
