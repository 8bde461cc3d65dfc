#include "objectstore/ObjectSet.h"

#include <algorithm>

#include "objectstore/ManagedObject.h"

namespace velkor::NS {

namespace {
constexpr std::size_t searchedInLine = 16;
}

ObjectSet::ObjectSet(std::vector<Element> objects) {
    m_objects.reserve(objects.size());
    for (Element& object : objects) insert(std::move(object));
}

ObjectSet ObjectSet::ofDistinct(std::vector<Element> objects) {
    ObjectSet set;
    set.m_objects = std::move(objects);
    return set;
}

ObjectSet& ObjectSet::operator=(ObjectSet other) noexcept {
    m_objects.swap(other.m_objects);
    m_places.swap(other.m_places);
    return *this;
}

std::size_t ObjectSet::placeOf(const ManagedObject* object) const {
    if (m_objects.size() <= searchedInLine) {
        const auto is = [&](const Element& element) { return element.get() == object; };
        return std::size_t(std::find_if(m_objects.begin(), m_objects.end(), is) - m_objects.begin());
    }
    if (m_places.empty()) {
        m_places.reserve(m_objects.size());
        for (std::size_t i = 0; i < m_objects.size(); ++i) m_places.emplace(m_objects[i].get(), i);
    }
    auto found = m_places.find(object);
    return found == m_places.end() ? m_objects.size() : found->second;
}

bool ObjectSet::insert(Element object) {
    if (!object || contains(object.get())) return false;
    if (!m_places.empty()) m_places.emplace(object.get(), m_objects.size());
    m_objects.push_back(std::move(object));
    return true;
}

bool ObjectSet::erase(const ManagedObject* object) {
    const std::size_t place = placeOf(object);
    if (place == m_objects.size()) return false;
    m_objects.erase(m_objects.begin() + std::ptrdiff_t(place));
    m_places.clear();
    return true;
}

std::string ObjectSet::description() const {
    std::string text = "{(\n";
    for (const Element& object : m_objects) {
        if (object != m_objects.front()) text += ",\n";
        text += "    " + object->description();
    }
    return text + "\n)}";
}

}  // namespace velkor::NS
