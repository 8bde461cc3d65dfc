#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "platform/base/Cell.h"
#include "platform/base/Export.h"

namespace velkor::NS {

class TextBuffer;

/// An immutable text of 16 bytes: up to 14 characters inline, a longer one in storage that copies share (one allocation, an
/// atomic count). Keys of dictionaries and the text of a Value are of this kind, so a reader that keeps the keys it has met hands
/// each to any number of dictionaries, and a text to a Value, without copying characters. Texts are below 4 GiB; a longer one
/// raises the invalid-argument exception.
class VELKOR_EXPORT SharedText {
public:
    static constexpr std::size_t inlineCapacity = Cell::inlineTextCapacity;

    SharedText() noexcept : m_cell(stringKind) {}
    explicit SharedText(std::string_view text) : m_cell(stringKind) {
        if (text.size() <= inlineCapacity) {
            m_cell.setInlineText(text.data(), text.size());
        } else {
            setSharedText(text);
        }
    }
    SharedText(const SharedText& other) noexcept : m_cell(other.m_cell) { m_cell.retain(); }
    SharedText(SharedText&& other) noexcept : m_cell(std::exchange(other.m_cell, Cell(stringKind))) {}
    SharedText& operator=(SharedText other) noexcept {
        std::swap(m_cell, other.m_cell);
        return *this;
    }
    ~SharedText() { releaseText(m_cell); }

    /// Valid while this text is neither changed, moved nor destroyed.
    std::string_view view() const noexcept { return m_cell.text(); }
    bool operator==(const SharedText& other) const noexcept { return m_cell.sameText(other.m_cell); }

private:
    friend class Value;
    friend class TextBuffer;
    static constexpr std::uint8_t stringKind = 6;  // Value::Kind::string
    static void releaseText(const Cell& cell) noexcept {
        if (cell.isShared() && cell.storage()->release()) std::free(cell.storage());
    }
    void setSharedText(std::string_view text);

    Cell m_cell;
};

/// Room for a text that is written in place, such as one being unescaped: fill `data()`, then `finish` with the final length.
class VELKOR_EXPORT TextBuffer {
public:
    explicit TextBuffer(std::size_t capacity);
    TextBuffer(const TextBuffer&) = delete;
    TextBuffer& operator=(const TextBuffer&) = delete;
    ~TextBuffer() { std::free(m_storage); }

    char* data() noexcept { return reinterpret_cast<char*>(m_storage + 1); }
    std::size_t capacity() const noexcept { return m_capacity; }
    /// The first `length` bytes (at most the capacity) as a text; the buffer is spent afterwards.
    SharedText finish(std::size_t length) &&;

private:
    SharedStorage* m_storage;
    std::size_t m_capacity;
};

}  // namespace velkor::NS
