// The 16 bytes that a Value and a SharedText are made of. Only for those two and the collections under them.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

#include "platform/base/Export.h"

namespace velkor::NS {

/// Head of every block of storage that copies share. The owner that brings the count to zero frees the block.
struct SharedStorage {
    std::atomic<std::uint32_t> references = 1;

    void retain() noexcept { references.fetch_add(1, std::memory_order_relaxed); }
    bool isUnique() const noexcept { return references.load(std::memory_order_acquire) == 1; }
    /// True when the caller was the last owner. A sole owner needs no atomic subtraction.
    bool release() noexcept { return isUnique() || references.fetch_sub(1, std::memory_order_acq_rel) == 1; }
};

/// Raw memory for storage; raises std::bad_alloc.
inline void* allocateStorage(std::size_t bytes) {
    if (void* memory = std::malloc(bytes)) return memory;
    throw std::bad_alloc();
}

/// Byte 0 is the kind and byte 1 the length of an inline text, or `shared` when bytes 8 to 15 are a pointer to shared storage
/// (which may be null for an empty collection). An inline text starts at byte 2; the length of a shared text stands in bytes 4
/// to 7. Unused bytes are zero, so that inline cells are equal exactly when their bytes are.
class alignas(8) Cell {
public:
    static constexpr std::size_t inlineTextCapacity = 14;
    static constexpr std::uint8_t shared = 0xFF;

    constexpr Cell() noexcept = default;
    constexpr explicit Cell(std::uint8_t kind) noexcept { m_bytes[0] = kind; }

    std::uint8_t kind() const noexcept { return m_bytes[0]; }
    void setKind(std::uint8_t kind) noexcept { m_bytes[0] = kind; }
    bool isShared() const noexcept { return m_bytes[1] == shared; }
    void markShared() noexcept { m_bytes[1] = shared; }

    template <class T>
    T payload() const noexcept {
        T value;
        std::memcpy(&value, m_bytes + 8, sizeof value);
        return value;
    }
    template <class T>
    void setPayload(T value) noexcept {
        std::memcpy(m_bytes + 8, &value, sizeof value);
    }
    /// The payload as the object that was made in place there.
    template <class T>
    T* payloadObject() noexcept {
        return std::launder(reinterpret_cast<T*>(m_bytes + 8));
    }
    template <class T>
    const T* payloadObject() const noexcept {
        return std::launder(reinterpret_cast<const T*>(m_bytes + 8));
    }
    void* payloadPlace() noexcept { return m_bytes + 8; }
    SharedStorage* storage() const noexcept { return payload<SharedStorage*>(); }

    /// Makes this an inline text; `length` is at most inlineTextCapacity.
    void setInlineText(const char* text, std::size_t length) noexcept {
        m_bytes[1] = static_cast<std::uint8_t>(length);
        unsigned char* place = m_bytes + 2;  // overlapping copies of a fixed size beat a call of memcpy
        if (length >= 8) {
            std::memcpy(place, text, 8);
            std::memcpy(place + length - 8, text + length - 8, 8);
        } else if (length >= 4) {
            std::memcpy(place, text, 4);
            std::memcpy(place + length - 4, text + length - 4, 4);
        } else {
            for (std::size_t i = 0; i < length; ++i) place[i] = static_cast<unsigned char>(text[i]);
        }
    }
    /// Makes this a shared text of that many bytes behind the head of its storage.
    void setSharedText(SharedStorage* storage, std::uint32_t length) noexcept {
        m_bytes[1] = shared;
        std::memcpy(m_bytes + 4, &length, sizeof length);
        setPayload(storage);
    }
    std::string_view text() const noexcept {
        if (!isShared()) return {reinterpret_cast<const char*>(m_bytes + 2), m_bytes[1]};
        std::uint32_t length;
        std::memcpy(&length, m_bytes + 4, sizeof length);
        return {reinterpret_cast<const char*>(storage() + 1), length};
    }
    /// Equality of two texts of one kind.
    bool sameText(const Cell& other) const noexcept {
        std::uint64_t mine = 0, theirs = 0;
        std::memcpy(&mine, m_bytes, 8);
        std::memcpy(&theirs, other.m_bytes, 8);
        if (mine != theirs) return false;  // another length, or other first characters
        if (payload<std::uint64_t>() == other.payload<std::uint64_t>()) return true;
        return isShared() && text() == other.text();
    }
    void retain() const noexcept {
        if (!isShared()) return;
        if (auto* block = storage()) block->retain();
    }

private:
    unsigned char m_bytes[16] = {};
};
static_assert(sizeof(Cell) == 16 && sizeof(SharedStorage) == 4);

}  // namespace velkor::NS
