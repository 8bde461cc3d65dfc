#pragma once

#include <cstddef>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace velkor::NS {

/// A map from text to T that enumerates in the order of insertion; look-up, insertion and removal take constant time. References
/// to elements stay valid until they are removed. Not thread-safe.
template <class T>
class OrderedMap {
public:
    using value_type = std::pair<const std::string, T>;
    using iterator = typename std::list<value_type>::iterator;
    using const_iterator = typename std::list<value_type>::const_iterator;

    OrderedMap() = default;
    OrderedMap(const OrderedMap& other) {
        for (const auto& [key, value] : other) set(key, value);
    }
    OrderedMap(OrderedMap&& other) noexcept = default;
    OrderedMap& operator=(OrderedMap other) noexcept {
        swap(other);
        return *this;
    }

    std::size_t size() const noexcept { return m_index.size(); }
    bool empty() const noexcept { return m_index.empty(); }
    iterator begin() noexcept { return m_entries.begin(); }
    iterator end() noexcept { return m_entries.end(); }
    const_iterator begin() const noexcept { return m_entries.begin(); }
    const_iterator end() const noexcept { return m_entries.end(); }

    iterator find(std::string_view key) {
        auto found = m_index.find(key);
        return found == m_index.end() ? end() : found->second;
    }
    const_iterator find(std::string_view key) const {
        auto found = m_index.find(key);
        return found == m_index.end() ? end() : const_iterator(found->second);
    }
    bool contains(std::string_view key) const { return m_index.find(key) != m_index.end(); }
    /// Adds the value, or replaces the key's value, which keeps its place.
    void set(std::string_view key, T value) {
        if (auto found = m_index.find(key); found != m_index.end()) {
            found->second->second = std::move(value);
            return;
        }
        m_entries.emplace_back(std::string(key), std::move(value));
        auto added = std::prev(m_entries.end());
        m_index.emplace(std::string_view(added->first), added);
    }
    bool erase(std::string_view key) {
        auto found = m_index.find(key);
        if (found == m_index.end()) return false;
        auto entry = found->second;
        m_index.erase(found);
        m_entries.erase(entry);
        return true;
    }
    /// Moves the entry to the end of `target` without copying it; a key that `target` holds is replaced there in place.
    void moveTo(OrderedMap& target, iterator entry) {
        m_index.erase(std::string_view(entry->first));
        if (auto other = target.find(entry->first); other != target.end()) {
            other->second = std::move(entry->second);
            m_entries.erase(entry);
            return;
        }
        target.m_entries.splice(target.m_entries.end(), m_entries, entry);
        target.m_index.emplace(std::string_view(entry->first), entry);
    }
    void clear() noexcept {
        m_index.clear();
        m_entries.clear();
    }
    void swap(OrderedMap& other) noexcept {
        m_entries.swap(other.m_entries);
        m_index.swap(other.m_index);
    }

private:
    std::list<value_type> m_entries;
    std::unordered_map<std::string_view, iterator> m_index;  // the views refer to the entries' own keys
};

}  // namespace velkor::NS
