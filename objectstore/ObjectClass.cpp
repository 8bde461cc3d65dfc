#include "objectstore/ObjectClass.h"

#include "objectstore/ManagedObject.h"

namespace velkor::NS {

namespace {

struct Registry {
    std::map<std::string, ObjectClass*, std::less<>> byName;  // records live until the process ends
    std::map<std::type_index, ObjectClass*> byType;
};

Registry& registry() {
    static Registry* const instance = new Registry;
    return *instance;
}

template <class Map>
const typename Map::mapped_type* entryIn(const Map& map, std::string_view name) noexcept {
    auto found = map.find(name);
    return found == map.end() ? nullptr : &found->second;
}

}  // namespace

ObjectClass& ObjectClass::registerClass(std::string_view name, Factory factory, std::type_index type) {
    ObjectClass fresh(name, std::move(factory));
    ObjectClass*& record = registry().byName[std::string(name)];
    if (record) {
        *record = std::move(fresh);  // in place: entities keep pointers to records
    } else {
        record = new ObjectClass(std::move(fresh));
    }
    registry().byType[type] = record;
    return *record;
}

const ObjectClass* ObjectClass::forName(std::string_view name) noexcept {
    auto* const* record = entryIn(registry().byName, name);
    return record ? *record : nullptr;
}

const ObjectClass* ObjectClass::forType(std::type_index type) noexcept {
    auto found = registry().byType.find(type);
    return found == registry().byType.end() ? nullptr : found->second;
}

ObjectClass& ObjectClass::adopt(std::string_view protocol) {
    m_protocols.emplace(protocol);
    return *this;
}

bool ObjectClass::conformsTo(std::string_view protocol) const noexcept { return m_protocols.contains(protocol); }

ObjectClass& ObjectClass::getter(std::string_view attribute, Getter get) {
    m_getters.insert_or_assign(std::string(attribute), std::move(get));
    return *this;
}

ObjectClass& ObjectClass::setter(std::string_view attribute, Setter set) {
    m_setters.insert_or_assign(std::string(attribute), std::move(set));
    return *this;
}

const ObjectClass::Getter* ObjectClass::getterFor(std::string_view attribute) const noexcept {
    return entryIn(m_getters, attribute);
}

const ObjectClass::Setter* ObjectClass::setterFor(std::string_view attribute) const noexcept {
    return entryIn(m_setters, attribute);
}

ObjectClass& ObjectClass::answersWithAttribute(std::string_view member) {
    m_members.insert_or_assign(std::string(member), Member{true, {}});
    return *this;
}

ObjectClass& ObjectClass::answers(std::string_view member, Getter function) {
    m_members.insert_or_assign(std::string(member), Member{false, std::move(function)});
    return *this;
}

const ObjectClass::Member* ObjectClass::member(std::string_view name) const noexcept { return entryIn(m_members, name); }

Value ObjectClass::valueOfMember(std::string_view name, const ManagedObject& object) const {
    const Member* found = member(name);
    if (!found) return {};
    if (!found->isAttribute) return found->function(object);
    return object.entity().attributeNamed(name) ? object.valueForKey(name) : Value();
}

ObjectClass& ObjectClass::entityFinder(EntityFinder find) {
    m_entityFinder = std::move(find);
    return *this;
}

}  // namespace velkor::NS
