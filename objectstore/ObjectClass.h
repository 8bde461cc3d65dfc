#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <typeindex>

#include "platform/base/Export.h"
#include "platform/base/Value.h"

namespace velkor::NS {

class EntityDescription;
class ManagedObject;
class ManagedObjectContext;

/// The registry's record of a C++ class of store objects: its name, how to make one, the protocols it adopts, the host's own
/// attribute accessors, and which optional members it answers. Registered explicitly at start, from one thread; read from any.
class VELKOR_EXPORT ObjectClass {
public:
    using Factory = std::function<std::shared_ptr<ManagedObject>()>;
    using Getter = std::function<Value(const ManagedObject&)>;
    using Setter = std::function<void(ManagedObject&, const Value&)>;

    /// Adds the class; registering a name again replaces its record. T derives from ManagedObject and has a default constructor.
    template <class T>
    static ObjectClass& registerClass(std::string_view name) {
        return registerClass(
            name, [] { return std::static_pointer_cast<ManagedObject>(std::make_shared<T>()); }, typeid(T));
    }
    static ObjectClass& registerClass(std::string_view name, Factory factory, std::type_index type);
    /// Null when no class of that name is registered.
    static const ObjectClass* forName(std::string_view name) noexcept;
    /// The record of a C++ class, or null.
    template <class T>
    static const ObjectClass* of() noexcept {
        return forType(typeid(T));
    }
    static const ObjectClass* forType(std::type_index type) noexcept;

    const std::string& name() const noexcept { return m_name; }
    std::shared_ptr<ManagedObject> make() const { return m_factory(); }

    ObjectClass& adopt(std::string_view protocol);
    bool conformsTo(std::string_view protocol) const noexcept;

    /// The host's own accessors, which key-value access runs instead of the plain ones. They reach the stored value through
    /// ManagedObject::primitiveValue and setPrimitiveValue.
    ObjectClass& getter(std::string_view attribute, Getter get);
    ObjectClass& setter(std::string_view attribute, Setter set);
    const Getter* getterFor(std::string_view attribute) const noexcept;
    const Setter* setterFor(std::string_view attribute) const noexcept;

    /// An optional member of a protocol that the class answers: with the attribute of that name, or with a function.
    struct Member {
        bool isAttribute = false;
        Getter function;
    };
    ObjectClass& answersWithAttribute(std::string_view member);
    ObjectClass& answers(std::string_view member, Getter function);
    /// Null: the class does not respond to it.
    const Member* member(std::string_view name) const noexcept;
    bool respondsTo(std::string_view name) const noexcept { return member(name) != nullptr; }
    /// The member's value for the object; nil when the class does not respond to it, or its attribute is none of the object's
    /// entity (of two entities that share the class).
    Value valueOfMember(std::string_view name, const ManagedObject& object) const;

    /// The optional class operation `entityInManagedObjectContext:`; empty when the class does not implement it.
    using EntityFinder = std::function<const EntityDescription*(const ManagedObjectContext&)>;
    ObjectClass& entityFinder(EntityFinder find);
    const EntityFinder& entityFinder() const noexcept { return m_entityFinder; }

private:
    ObjectClass(std::string_view name, Factory factory) : m_name(name), m_factory(std::move(factory)) {}
    std::string m_name;
    Factory m_factory;
    std::set<std::string, std::less<>> m_protocols;
    std::map<std::string, Getter, std::less<>> m_getters;
    std::map<std::string, Setter, std::less<>> m_setters;
    std::map<std::string, Member, std::less<>> m_members;
    EntityFinder m_entityFinder;
};

}  // namespace velkor::NS
