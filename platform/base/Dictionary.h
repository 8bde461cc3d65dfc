#pragma once

#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

#include "platform/base/Export.h"

namespace velkor::NS {

class Value;

/// A map from text to value that keeps the order of insertion. Copies share the storage; the first change of a shared copy
/// copies it. Small dictionaries are searched in line, larger ones through a hash index.
class VELKOR_EXPORT Dictionary {
public:
    /// One member: `key()` and `value()`.
    class Entry;
    using const_iterator = const Entry*;

    Dictionary() noexcept;
    Dictionary(std::initializer_list<std::pair<std::string_view, Value>> members);
    Dictionary(const Dictionary& other) noexcept;
    Dictionary(Dictionary&& other) noexcept;
    Dictionary& operator=(const Dictionary& other) noexcept;
    Dictionary& operator=(Dictionary&& other) noexcept;
    ~Dictionary();

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
    /// Removes the key; absent keys are no error.
    void remove(std::string_view key);
    void clear() noexcept;
    void reserve(std::size_t count);

    /// Same keys with equal values, in any order.
    bool operator==(const Dictionary& other) const noexcept;
    std::string description() const;

private:
    struct Storage;
    Storage* m_storage = nullptr;
};

}  // namespace velkor::NS
