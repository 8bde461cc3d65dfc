#pragma once

#include <cstddef>
#include <initializer_list>
#include <memory>
#include <string>
#include <unordered_map>
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
    /// An object that is in the list more than once is taken once; null elements are left out.
    explicit ObjectSet(std::vector<Element> objects);
    ObjectSet(std::initializer_list<Element> objects) : ObjectSet(std::vector<Element>(objects)) {}
    /// The objects are known to be distinct and not null.
    static ObjectSet ofDistinct(std::vector<Element> objects);
    ObjectSet(const ObjectSet& other) : Object(), m_objects(other.m_objects) {}
    ObjectSet(ObjectSet&& other) noexcept
        : Object(), m_objects(std::move(other.m_objects)), m_places(std::move(other.m_places)) {}
    ObjectSet& operator=(ObjectSet other) noexcept;

    std::size_t size() const noexcept { return m_objects.size(); }
    bool empty() const noexcept { return m_objects.empty(); }
    auto begin() const noexcept { return m_objects.begin(); }
    auto end() const noexcept { return m_objects.end(); }
    const std::vector<Element>& allObjects() const noexcept { return m_objects; }
    bool contains(const ManagedObject* object) const { return placeOf(object) < m_objects.size(); }
    /// Returns whether it was new. A null object is left out.
    bool insert(Element object);
    bool erase(const ManagedObject* object);
    std::string description() const override;

private:
    std::size_t placeOf(const ManagedObject* object) const;  // the size when it is not there

    std::vector<Element> m_objects;
    mutable std::unordered_map<const ManagedObject*, std::size_t> m_places;  // of a large set, once it was searched
};

}  // namespace velkor::NS
