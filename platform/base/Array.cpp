#include "platform/base/Array.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <utility>

#include "platform/base/Description.h"
#include "platform/base/Exception.h"
#include "platform/base/Value.h"

namespace velkor::NS {

// A block of the head and `capacity` places for values, the first `count` of them made. Values are moved by moving their bytes.
struct alignas(Value) Array::Storage : SharedStorage {
    std::uint32_t count = 0;
    std::uint32_t capacity = 0;

    Value* values() noexcept { return reinterpret_cast<Value*>(this + 1); }

    static std::size_t bytesFor(std::size_t capacity) {
        if (capacity > std::numeric_limits<std::uint32_t>::max()) throw Exception(RangeException, "An array is too long.");
        return sizeof(Storage) + capacity * sizeof(Value);
    }
    static Storage* make(std::size_t capacity) {
        auto* storage = new (allocateStorage(bytesFor(capacity))) Storage;
        storage->capacity = static_cast<std::uint32_t>(capacity);
        return storage;
    }
};

Array::Array(std::initializer_list<Value> values) {
    makeRoomFor(values.size());
    for (const Value& value : values) push_back(value);
}

Array::Array(const Array& other) noexcept : m_storage(other.m_storage) {
    if (m_storage) m_storage->retain();
}

Array& Array::operator=(const Array& other) noexcept { return *this = Array(other); }

Array& Array::operator=(Array&& other) noexcept {
    Array taken(std::move(other));
    std::swap(m_storage, taken.m_storage);
    return *this;
}

Array::~Array() {
    if (m_storage && m_storage->release()) destroy(m_storage);
}

Array Array::adopting(std::span<Value> values) {
    Array array;
    if (values.empty()) return array;
    array.m_storage = Storage::make(values.size());
    std::memcpy(static_cast<void*>(array.m_storage->values()), values.data(), values.size_bytes());
    array.m_storage->count = array.m_storage->capacity;
    std::uninitialized_value_construct(values.begin(), values.end());
    return array;
}

void Array::destroy(Storage* storage) noexcept {
    constexpr std::uint32_t ahead = 8;
    Value* const values = storage->values();
    for (std::uint32_t i = 0; i < storage->count; ++i) {
        if (i + ahead < storage->count) values[i + ahead].prefetch();
        values[i].~Value();
    }
    std::free(storage);
}

std::size_t Array::size() const noexcept { return m_storage ? m_storage->count : 0; }
const Value& Array::operator[](std::size_t index) const noexcept { return m_storage->values()[index]; }
Array::const_iterator Array::begin() const noexcept { return m_storage ? m_storage->values() : nullptr; }
Array::const_iterator Array::end() const noexcept { return m_storage ? m_storage->values() + m_storage->count : nullptr; }

// Afterwards the storage is this array's own and has at least that many places.
void Array::makeRoomFor(std::size_t count) {
    if (m_storage && m_storage->isUnique()) {
        if (count <= m_storage->capacity) return;
        const std::size_t capacity = std::max<std::size_t>(count, std::size_t{m_storage->capacity} * 2);
        void* larger = std::realloc(static_cast<void*>(m_storage), Storage::bytesFor(capacity));
        if (!larger) throw std::bad_alloc();
        m_storage = static_cast<Storage*>(larger);
        m_storage->capacity = static_cast<std::uint32_t>(capacity);
        return;
    }
    Storage* own = Storage::make(std::max<std::size_t>(count, m_storage ? m_storage->count : 4));
    std::uninitialized_copy(begin(), end(), own->values());
    own->count = static_cast<std::uint32_t>(size());
    const Array former(std::move(*this));
    m_storage = own;
}

void Array::reserve(std::size_t count) {
    if (count > size()) makeRoomFor(count);
}

void Array::push_back(Value value) {
    makeRoomFor(size() + 1);
    new (m_storage->values() + m_storage->count++) Value(std::move(value));
}

void Array::append(const Array& other) {
    const Array source(other);  // also when it is this array
    makeRoomFor(size() + source.size());
    for (const Value& value : source) new (m_storage->values() + m_storage->count++) Value(value);
}

Value& Array::mutableAt(std::size_t index) {
    if (index >= size()) throw Exception(RangeException, "An array index is out of range.");
    makeRoomFor(size());
    return m_storage->values()[index];
}

void Array::clear() noexcept { *this = Array(); }

bool Array::operator==(const Array& other) const noexcept {
    return m_storage == other.m_storage || std::equal(begin(), end(), other.begin(), other.end());
}

std::string Array::description() const {
    std::string text;
    appendDescription(text, *this, 0);
    return text;
}

}  // namespace velkor::NS
