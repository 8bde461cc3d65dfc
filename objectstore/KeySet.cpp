#include "objectstore/KeySet.h"

#include <algorithm>

namespace velkor::NS {

std::size_t KeySet::placeOf(RowKey key) const {
    if (m_keys.size() <= searchedInLine) {
        auto found = std::find(m_keys.begin(), m_keys.end(), key);
        return found == m_keys.end() ? nowhere : std::size_t(found - m_keys.begin());
    }
    if (!m_places) {
        m_places = std::make_unique<KeyTable<std::uint32_t>>();
        m_places->reserve(m_keys.size());
        for (std::size_t i = 0; i < m_keys.size(); ++i) m_places->set(m_keys[i], std::uint32_t(i));
    }
    const std::uint32_t* place = m_places->find(key);
    return place ? *place : nowhere;
}

bool KeySet::contains(RowKey key) const { return placeOf(key) != nowhere; }

bool KeySet::insert(RowKey key) {
    if (contains(key)) return false;
    if (m_places) m_places->set(key, std::uint32_t(m_keys.size()));
    m_keys.push_back(key);
    return true;
}

bool KeySet::erase(RowKey key) {
    const std::size_t place = placeOf(key);
    if (place == nowhere) return false;
    if (m_places) {
        m_places->erase(key);
        if (place + 1 < m_keys.size()) m_places->set(m_keys.back(), std::uint32_t(place));
    }
    m_keys[place] = m_keys.back();
    m_keys.pop_back();
    return true;
}

void KeySet::clear() noexcept {
    m_keys.clear();
    m_places.reset();
}

}  // namespace velkor::NS
