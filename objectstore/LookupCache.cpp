#include "objectstore/LookupCache.h"

#include "objectstore/ValueOrder.h"

namespace velkor::NS {

std::size_t LookupCache::Hash::operator()(const Value& value) const noexcept { return hashOf(value); }

const LookupCache::Watched* LookupCache::watched(const EntityDescription& entity, std::size_t attribute) const noexcept {
    for (const Watched& watched : m_watched) {
        if (watched.entity == &entity && watched.attribute == attribute) return &watched;
    }
    return nullptr;
}

void LookupCache::cover(const EntityDescription& entity, const AttributeDescription& attribute, const Array& values) {
    Watched* place = watched(entity, attribute.index);
    if (!place) place = &m_watched.emplace_back(Watched{&entity, attribute.index, {}});
    place->candidates.reserve(place->candidates.size() + values.size());
    for (const Value& value : values) place->candidates.try_emplace(value);
}

void LookupCache::add(const EntityDescription& entity, std::size_t attribute, const Value& value, RowKey key) {
    if (Watched* place = watched(entity, attribute)) add(*place, value, key);
}

void LookupCache::addRow(const EntityDescription& entity, std::span<const Value> values, RowKey key) {
    for (Watched& watched : m_watched) {
        if (watched.entity == &entity) add(watched, values[watched.attribute], key);
    }
}

void LookupCache::add(Watched& watched, const Value& value, RowKey key) {
    auto found = watched.candidates.find(value);
    if (found != watched.candidates.end()) found->second.insert(key);
}

const KeySet* LookupCache::candidates(const EntityDescription& entity, std::size_t attribute, const Value& value) const {
    const Watched* place = watched(entity, attribute);
    if (!place) return nullptr;
    auto found = place->candidates.find(value);
    return found == place->candidates.end() ? nullptr : &found->second;
}

}  // namespace velkor::NS
