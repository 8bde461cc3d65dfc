#pragma once

#include <cstddef>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "platform/base/Export.h"
#include "platform/base/SharedText.h"

namespace velkor::NS {

class Value;

/// A map from text to value that keeps the order of insertion. Copies share the storage; the first change of a shared copy
/// copies it. Small dictionaries are searched in line, larger ones through a hash index; removing takes time proportional to the
/// size.
class VELKOR_EXPORT Dictionary {
public:
    /// One member: `key()` and `value()`, or `const auto& [key, value]`.
    class Entry;
    using const_iterator = const Entry*;

    Dictionary() noexcept = default;
    Dictionary(std::initializer_list<std::pair<std::string_view, Value>> members);
    Dictionary(const Dictionary& other) noexcept;
    Dictionary(Dictionary&& other) noexcept : m_storage(other.m_storage) { other.m_storage = nullptr; }
    Dictionary& operator=(const Dictionary& other) noexcept;
    Dictionary& operator=(Dictionary&& other) noexcept;
    ~Dictionary();

    /// Moves the members into a dictionary of exactly their size: one allocation, no reference counting. Of members with one key
    /// the last one's value wins, at the first one's place. Values must not be nil; the entries are empty afterwards.
    static Dictionary adopting(std::span<Entry> members);

    std::size_t size() const noexcept;
    bool empty() const noexcept { return size() == 0; }
    bool contains(std::string_view key) const noexcept { return find(key) != nullptr; }
    /// The value under the key, or null when absent.
    const Value* find(std::string_view key) const noexcept;
    /// The value under the key, or a nil value when absent.
    const Value& operator[](std::string_view key) const noexcept;
    const_iterator begin() const noexcept;
    const_iterator end() const noexcept;

    /// Adds or replaces (a replaced key keeps its place). A nil value raises the invalid-argument exception.
    void set(std::string_view key, Value value);
    void set(SharedText key, Value value);
    /// Adds a member whose key, as the caller knows, is not there yet; without a look-up. Unlike `set` it does not
    /// refuse nil.
    void append(SharedText key, Value value);
    /// Removes the key; absent keys are no error.
    void remove(std::string_view key);
    void clear() noexcept;
    void reserve(std::size_t count);

    /// Same keys with equal values, in any order.
    bool operator==(const Dictionary& other) const noexcept;
    std::string description() const;

private:
    friend class Value;
    struct Storage;
    static void destroy(Storage* storage) noexcept;
    void makeRoomFor(std::size_t count);
    Entry* findForChange(std::string_view key);

    Storage* m_storage = nullptr;
};

}  // namespace velkor::NS
