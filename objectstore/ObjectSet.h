#pragma once

#include <cstddef>
#include <initializer_list>
#include <memory>
#include <unordered_set>
#include <vector>

#include "platform/base/Export.h"
#include "platform/base/Object.h"

namespace velkor::NS {

class ManagedObject;

/// A set of store objects that enumerates in the order of insertion. Confined to the objects' thread.
class VELKOR_EXPORT ObjectSet : public Object {
public:
    using Element = std::shared_ptr<ManagedObject>;

    ObjectSet() = default;
    explicit ObjectSet(std::vector<Element> objects);
    ObjectSet(std::initializer_list<Element> objects) : ObjectSet(std::vector<Element>(objects)) {}
    ObjectSet(const ObjectSet& other) : Object(), m_objects(other.m_objects), m_members(other.m_members) {}
    ObjectSet(ObjectSet&& other) noexcept : Object(), m_objects(std::move(other.m_objects)), m_members(std::move(other.m_members)) {}
    ObjectSet& operator=(ObjectSet other) noexcept;

    std::size_t size() const noexcept { return m_objects.size(); }
    bool empty() const noexcept { return m_objects.empty(); }
    auto begin() const noexcept { return m_objects.begin(); }
    auto end() const noexcept { return m_objects.end(); }
    const std::vector<Element>& allObjects() const noexcept { return m_objects; }
    bool contains(const ManagedObject* object) const noexcept;
    /// Returns whether it was new.
    bool insert(Element object);
    bool erase(const ManagedObject* object);
    std::string description() const override;

private:
    std::vector<Element> m_objects;
    std::unordered_set<const ManagedObject*> m_members;
};

}  // namespace velkor::NS
