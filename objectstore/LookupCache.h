#pragma once

#include <span>
#include <unordered_map>
#include <utility>
#include <vector>

#include "objectstore/EntityDescription.h"
#include "objectstore/KeySet.h"
#include "platform/base/Value.h"

namespace velkor::NS {

/// Which objects have which value of an attribute, for the values that were asked for together: so that the fetches that follow
/// need no query. Holds keys of candidates; whoever asks checks their current values. Internal to the object store.
class LookupCache {
public:
    bool empty() const noexcept { return m_watched.empty(); }
    /// From now on the values are known: the candidates that `add` names have them, and nobody else.
    void cover(const EntityDescription& entity, const AttributeDescription& attribute, const Array& values);
    /// The object has the value now; ignored for values that are not covered.
    void add(const EntityDescription& entity, std::size_t attribute, const Value& value, RowKey key);
    /// The same for each watched attribute of a row's values.
    void addRow(const EntityDescription& entity, std::span<const Value> values, RowKey key);
    /// The keys of the objects that may have the value; null when the value is not covered.
    const KeySet* candidates(const EntityDescription& entity, std::size_t attribute, const Value& value) const;
    void clear() noexcept { m_watched.clear(); }

private:
    struct Hash {
        std::size_t operator()(const Value& value) const noexcept;
    };
    struct Watched {
        const EntityDescription* entity;
        std::size_t attribute;
        std::unordered_map<Value, KeySet, Hash> candidates;
    };
    static void add(Watched& watched, const Value& value, RowKey key);
    const Watched* watched(const EntityDescription& entity, std::size_t attribute) const noexcept;
    Watched* watched(const EntityDescription& entity, std::size_t attribute) noexcept {
        return const_cast<Watched*>(std::as_const(*this).watched(entity, attribute));
    }
    std::vector<Watched> m_watched;  // few
};

}  // namespace velkor::NS
