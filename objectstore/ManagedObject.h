#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "objectstore/EntityDescription.h"
#include "objectstore/ManagedObjectID.h"
#include "objectstore/ObjectSet.h"
#include "platform/base/Export.h"
#include "platform/base/Object.h"
#include "platform/base/Value.h"

namespace velkor::NS {

class ManagedObjectContext;
struct ContextState;
struct ObjectState;

/// An object of the store, registered in one context and confined to that context's thread. Hosts derive their classes from it
/// and register them with ObjectClass. Reading an object that is a fault loads it (and others of its kind that are still faults,
/// in one batch). A deleted object still answers its last values and takes no others. Valid as long as the store's model lives.
class VELKOR_EXPORT ManagedObject : public Object {
public:
    ManagedObject();
    ~ManagedObject() override;

    const EntityDescription& entity() const noexcept { return *m_entity; }
    /// Null once the object was deleted and saved, its row was found missing, its insertion was given up, or its context was
    /// reset or is gone.
    ManagedObjectContext* managedObjectContext() const noexcept;
    std::shared_ptr<const ManagedObjectID> objectID() const;
    std::string_view className() const noexcept override;

    /// Key-value access: runs the class's registered accessor if there is one. An attribute gives its value (nil: none), a to-one
    /// relationship the object or nil, a to-many relationship an ObjectSet. An unknown name raises the invalid-argument
    /// exception.
    Value valueForKey(std::string_view name) const;
    /// For a relationship: an object, nil, or an ObjectSet. Both sides of an inverse are kept in step and marked as updated.
    void setValueForKey(const Value& value, std::string_view name);

    /// The stored value, without accessors. The attribute belongs to the object's entity.
    const Value& primitiveValue(const AttributeDescription& attribute) const;
    void setPrimitiveValue(const AttributeDescription& attribute, Value value);
    const Value& primitiveValue(std::string_view attribute) const;
    void setPrimitiveValue(std::string_view attribute, Value value);

    std::shared_ptr<ManagedObject> destination(const RelationshipDescription& toOne) const;
    ObjectSet destinations(const RelationshipDescription& toMany) const;
    void setDestination(const RelationshipDescription& toOne, const std::shared_ptr<ManagedObject>& object);
    void setDestinations(const RelationshipDescription& toMany, const ObjectSet& objects);
    void addDestination(const RelationshipDescription& toMany, const std::shared_ptr<ManagedObject>& object);
    void removeDestination(const RelationshipDescription& toMany, const std::shared_ptr<ManagedObject>& object);

    bool isInserted() const noexcept;
    bool isUpdated() const noexcept;
    bool isDeleted() const noexcept;
    bool isFault() const noexcept;
    bool hasChanges() const noexcept { return isInserted() || isUpdated() || isDeleted(); }
    /// The class answers the optional member (see ObjectClass::member).
    bool respondsTo(std::string_view member) const noexcept;
    std::string description() const override;

    /// Called once after the object was inserted, with default values set.
    virtual void awakeFromInsert() {}

private:
    friend struct ContextState;
    friend ObjectState& stateOf(const ManagedObject& object) noexcept;
    /// The state of an object that is no fault any more.
    ObjectState& loaded() const;
    const EntityDescription* m_entity = nullptr;
    ContextState* m_context = nullptr;
    std::unique_ptr<ObjectState> m_state;  // values, keys of relationships, snapshot
};

}  // namespace velkor::NS
