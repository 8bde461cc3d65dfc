#include "platform/base/SharedText.h"

#include <limits>

#include "platform/base/Exception.h"

namespace velkor::NS {
namespace {

SharedStorage* makeTextStorage(std::size_t length) {
    if (length > std::numeric_limits<std::uint32_t>::max()) throw Exception(InvalidArgumentException, "A text is too long.");
    return new (allocateStorage(sizeof(SharedStorage) + length)) SharedStorage;
}

}  // namespace

void SharedText::setSharedText(std::string_view text) {
    SharedStorage* storage = makeTextStorage(text.size());
    std::memcpy(static_cast<void*>(storage + 1), text.data(), text.size());
    m_cell.setSharedText(storage, static_cast<std::uint32_t>(text.size()));
}

TextBuffer::TextBuffer(std::size_t capacity) : m_storage(makeTextStorage(capacity)), m_capacity(capacity) {}

SharedText TextBuffer::finish(std::size_t length) && {
    SharedText text;
    if (length <= SharedText::inlineCapacity) {
        text.m_cell.setInlineText(data(), length);
        return text;
    }
    // Only a text much shorter than its room is worth a reallocation.
    if (m_capacity - length > 64 && length < m_capacity - m_capacity / 8) {
        if (void* smaller = std::realloc(static_cast<void*>(m_storage), sizeof(SharedStorage) + length)) {
            m_storage = static_cast<SharedStorage*>(smaller);
        }
    }
    text.m_cell.setSharedText(std::exchange(m_storage, nullptr), static_cast<std::uint32_t>(length));
    return text;
}

}  // namespace velkor::NS
