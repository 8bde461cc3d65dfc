#pragma once

#include <cstddef>
#include <initializer_list>
#include <span>
#include <string>

#include "platform/base/Export.h"

namespace velkor::NS {

class Value;

/// An ordered list of values. Copies share the storage; the first change of a shared copy copies it.
class VELKOR_EXPORT Array {
public:
    using const_iterator = const Value*;

    Array() noexcept = default;
    Array(std::initializer_list<Value> values);
    Array(const Array& other) noexcept;
    Array(Array&& other) noexcept : m_storage(other.m_storage) { other.m_storage = nullptr; }
    Array& operator=(const Array& other) noexcept;
    Array& operator=(Array&& other) noexcept;
    ~Array();

    /// Moves the values into an array of exactly their size: one allocation, no reference counting. The values are nil
    /// afterwards.
    static Array adopting(std::span<Value> values);

    std::size_t size() const noexcept;
    bool empty() const noexcept { return size() == 0; }
    /// The element; `index` must be below `size()`.
    const Value& operator[](std::size_t index) const noexcept;
    const_iterator begin() const noexcept;
    const_iterator end() const noexcept;

    void reserve(std::size_t count);
    void push_back(Value value);
    /// Appends all elements of `other`, in order.
    void append(const Array& other);
    /// The element for changing in place; an index that is not below `size()` raises the range exception.
    Value& mutableAt(std::size_t index);
    void clear() noexcept;

    bool operator==(const Array& other) const noexcept;
    std::string description() const;

private:
    friend class Value;
    struct Storage;
    static void destroy(Storage* storage) noexcept;
    void makeRoomFor(std::size_t count);

    Storage* m_storage = nullptr;
};

}  // namespace velkor::NS
