#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "objectstore/KeyTable.h"

namespace velkor::NS {

/// A set of row keys, enumerated in the order of insertion as long as nothing is erased. Small sets are searched in line, larger
/// ones through a table that is built at the first search. Internal to the object store.
class KeySet {
public:
    KeySet() = default;
    /// The keys must be distinct.
    explicit KeySet(std::vector<RowKey> keys) : m_keys(std::move(keys)) {}

    std::size_t size() const noexcept { return m_keys.size(); }
    bool empty() const noexcept { return m_keys.empty(); }
    auto begin() const noexcept { return m_keys.begin(); }
    auto end() const noexcept { return m_keys.end(); }
    const std::vector<RowKey>& keys() const noexcept { return m_keys; }

    bool contains(RowKey key) const;
    /// Returns whether it was new.
    bool insert(RowKey key);
    /// The last key takes the place of the erased one. Returns whether it was there.
    bool erase(RowKey key);
    void clear() noexcept;

    /// Replaces each key by what `change` makes of it; the results must be distinct.
    template <class F>
    void rewrite(F&& change) {
        for (RowKey& key : m_keys) key = change(key);
        m_places.reset();
    }

private:
    static constexpr std::size_t searchedInLine = 16;
    static constexpr std::size_t nowhere = ~std::size_t(0);
    std::size_t placeOf(RowKey key) const;

    std::vector<RowKey> m_keys;
    mutable std::unique_ptr<KeyTable<std::uint32_t>> m_places;
};

}  // namespace velkor::NS
