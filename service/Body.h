#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>
#include <string_view>

namespace velkor::service {

/// The bytes of a request's body: one buffer, filled once.
class Body {
public:
    Body() = default;
    explicit Body(std::string_view bytes) : Body(bytes.size()) { bytes.copy(data(), bytes.size()); }
    /// Room for `size` bytes, not initialised.
    explicit Body(std::size_t size) { resize(size); }

    char* data() noexcept { return m_bytes.get(); }
    std::size_t size() const noexcept { return m_size; }
    std::string_view view() const noexcept { return {m_bytes.get(), m_size}; }
    void clear() noexcept { *this = Body(); }

    /// Keeps the bytes; new ones are not initialised. Raises std::bad_alloc, which changes nothing. The system moves the pages of
    /// a large buffer, so that its bytes are not copied.
    void resize(std::size_t size) {
        auto* bytes = static_cast<char*>(std::realloc(m_bytes.get(), std::max<std::size_t>(size, 1)));
        if (!bytes) throw std::bad_alloc();
        static_cast<void>(m_bytes.release());
        m_bytes.reset(bytes);
        m_size = size;
    }

private:
    struct Free {
        void operator()(char* bytes) const noexcept { std::free(bytes); }
    };
    std::unique_ptr<char[], Free> m_bytes;
    std::size_t m_size = 0;
};

}  // namespace velkor::service
