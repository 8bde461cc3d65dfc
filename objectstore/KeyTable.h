#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "objectstore/StoreSession.h"

namespace velkor::NS {

/// A map from row keys to something small, by open addressing with linear probing. 0 is no row's key. Internal to the object
/// store.
template <class T>
class KeyTable {
public:
    std::size_t size() const noexcept { return m_size; }
    bool empty() const noexcept { return m_size == 0; }

    /// The entry, or null. Valid until the table changes.
    T* find(RowKey key) noexcept {
        if (m_size == 0) return nullptr;
        for (std::size_t at = homeOf(key);; at = next(at)) {
            if (m_slots[at].key == key) return &m_slots[at].value;
            if (m_slots[at].key == 0) return nullptr;
        }
    }
    const T* find(RowKey key) const noexcept { return const_cast<KeyTable*>(this)->find(key); }

    /// Adds or replaces.
    void set(RowKey key, T value) {
        if ((m_size + 1) * 4 > m_slots.size() * 3) resize(m_slots.empty() ? 8 : m_slots.size() * 2);
        std::size_t at = homeOf(key);
        while (m_slots[at].key != 0 && m_slots[at].key != key) at = next(at);
        m_size += m_slots[at].key == 0;
        m_slots[at] = {key, value};
    }

    bool erase(RowKey key) noexcept {
        T* found = find(key);
        if (!found) return false;
        std::size_t hole = placeOf(found);
        // Entries behind the hole move up when a search for them would pass it.
        for (std::size_t at = next(hole); m_slots[at].key != 0; at = next(at)) {
            if (distance(homeOf(m_slots[at].key), at) < distance(hole, at)) continue;
            m_slots[hole] = m_slots[at];
            hole = at;
        }
        m_slots[hole] = {};
        --m_size;
        return true;
    }

    void clear() noexcept {
        m_slots.clear();
        m_slots.shrink_to_fit();
        m_size = 0;
        m_shift = 64;
    }

    void reserve(std::size_t count) {
        std::size_t slots = m_slots.empty() ? 8 : m_slots.size();
        while (count * 4 > slots * 3) slots *= 2;
        if (slots != m_slots.size()) resize(slots);
    }

    template <class F>
    void forEach(F&& handle) const {
        for (const Slot& slot : m_slots) {
            if (slot.key != 0) handle(slot.key, slot.value);
        }
    }

    /// Calls `handle` for the entries in `span` slots behind the key's own.
    template <class F>
    void forEachBehind(RowKey key, std::size_t span, F&& handle) const {
        if (m_slots.empty()) return;
        if (span >= m_slots.size()) span = m_slots.size() - 1;
        for (std::size_t at = next(homeOf(key)); span > 0; at = next(at), --span) {
            if (m_slots[at].key != 0 && m_slots[at].key != key) handle(m_slots[at].key, m_slots[at].value);
        }
    }

private:
    struct Slot {
        RowKey key = 0;
        T value{};
    };

    std::size_t homeOf(RowKey key) const noexcept { return std::size_t((std::uint64_t(key) * 0x9E3779B97F4A7C15u) >> m_shift); }
    std::size_t next(std::size_t at) const noexcept { return (at + 1) & (m_slots.size() - 1); }
    std::size_t distance(std::size_t from, std::size_t to) const noexcept { return (to - from) & (m_slots.size() - 1); }
    std::size_t placeOf(const T* value) const noexcept {
        const auto* slots = reinterpret_cast<const char*>(m_slots.data());
        return std::size_t(reinterpret_cast<const char*>(value) - slots) / sizeof(Slot);
    }

    void resize(std::size_t slots) {
        std::vector<Slot> old(slots);
        old.swap(m_slots);
        m_shift = 64;
        for (std::size_t n = slots; n > 1; n /= 2) --m_shift;
        for (const Slot& slot : old) {
            if (slot.key == 0) continue;
            std::size_t at = homeOf(slot.key);
            while (m_slots[at].key != 0) at = next(at);
            m_slots[at] = slot;
        }
    }

    std::vector<Slot> m_slots;  // a power of two
    std::size_t m_size = 0;
    int m_shift = 64;
};

}  // namespace velkor::NS
