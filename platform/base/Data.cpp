#include "platform/base/Data.h"

#ifdef __linux__
#include <sys/mman.h>
#endif

#include <cstdint>
#include <utility>

#include "platform/base/Cell.h"

namespace velkor::NS {

namespace {

constexpr std::size_t largeBuffer = 8 << 20;  // bytes

/// A large buffer that is about to be filled takes large pages: a fault for each small one costs as much as what comes into it.
void preferLargePages([[maybe_unused]] std::string& buffer) noexcept {
#ifdef __linux__
    constexpr std::uintptr_t page = 1 << 21;
    const auto begin = reinterpret_cast<std::uintptr_t>(buffer.data()), end = begin + buffer.capacity();
    const auto first = (begin + page - 1) / page * page, last = end / page * page;
    if (first < last) ::madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
#endif
}

}  // namespace

struct Data::Storage : SharedStorage {
    explicit Storage(std::string content) noexcept : bytes(std::move(content)) {}
    std::string bytes;
};

Data::Data(std::string bytes) : m_storage(new Storage(std::move(bytes))) {}

Data::Data(std::span<const std::uint8_t> bytes) : Data(std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size())) {}

Data::Data(const Data& other) noexcept : m_storage(other.m_storage) {
    if (m_storage) m_storage->retain();
}

Data& Data::operator=(const Data& other) noexcept { return *this = Data(other); }

Data& Data::operator=(Data&& other) noexcept {
    Data taken(std::move(other));
    std::swap(m_storage, taken.m_storage);
    return *this;
}

Data::~Data() {
    if (m_storage && m_storage->release()) destroy(m_storage);
}

void Data::destroy(Storage* storage) noexcept { delete storage; }

std::string_view Data::view() const noexcept { return m_storage ? std::string_view(m_storage->bytes) : std::string_view(); }

std::string& Data::ownBytes() {
    if (!m_storage || !m_storage->isUnique()) *this = Data(std::string(view()));
    return m_storage->bytes;
}

void Data::append(std::string_view bytes) {
    const Data keepsOwnBytes =
        m_storage && bytes.data() >= view().data() && bytes.data() < view().data() + size() ? *this : Data();
    ownBytes().append(bytes);
}

void Data::reserve(std::size_t bytes) {
    std::string& own = ownBytes();
    if (bytes <= own.capacity()) return;
    own.reserve(bytes);
    if (bytes >= largeBuffer) preferLargePages(own);
}

std::string Data::take() {
    if (!m_storage) return {};
    std::string bytes = m_storage->isUnique() ? std::move(m_storage->bytes) : m_storage->bytes;
    clear();
    return bytes;
}

std::string Data::description() const {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text = "<";
    text.reserve(2 + size() * 2 + size() / 4);
    std::size_t count = 0;
    for (const char c : view()) {
        if (count != 0 && count % 4 == 0) text += ' ';
        const auto byte = static_cast<unsigned char>(c);
        text += digits[byte >> 4];
        text += digits[byte & 15];
        ++count;
    }
    return text += '>';
}

}  // namespace velkor::NS
