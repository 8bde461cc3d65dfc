#include "objectstore/LookupCache.h"

#include "objectstore/ValueOrder.h"

namespace velkor::NS {

std::size_t LookupCache::Hash::operator()(const Value& value) const noexcept { return hashOf(value); }

LookupCache::Watched* LookupCache::watched(const EntityDescription& entity, std::size_t attribute) noexcept {
    for (Watched& watched : m_watched) {
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
    Watched* place = watched(entity, attribute);
    if (!place) return;
    auto found = place->candidates.find(value);
    if (found != place->candidates.end()) found->second.insert(key);
}

const KeySet* LookupCache::candidates(const EntityDescription& entity, std::size_t attribute, const Value& value) const {
    Watched* place = const_cast<LookupCache*>(this)->watched(entity, attribute);
    if (!place) return nullptr;
    auto found = place->candidates.find(value);
    return found == place->candidates.end() ? nullptr : &found->second;
}

}  // namespace velkor::NS
