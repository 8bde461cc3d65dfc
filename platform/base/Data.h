#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "platform/base/Export.h"

namespace velkor::NS {

/// A byte buffer. Copies share the bytes; `append` copies them first when they are shared.
class VELKOR_EXPORT Data {
public:
    Data() noexcept = default;
    /// Takes the bytes over without copying them.
    explicit Data(std::string bytes);
    explicit Data(std::span<const std::uint8_t> bytes);
    static Data copyOf(std::string_view bytes) { return Data(std::string(bytes)); }

    std::size_t size() const noexcept { return m_bytes ? m_bytes->size() : 0; }
    bool empty() const noexcept { return size() == 0; }
    /// The bytes; valid while this Data is neither changed nor destroyed.
    std::string_view view() const noexcept { return m_bytes ? std::string_view(*m_bytes) : std::string_view(); }
    const std::uint8_t* bytes() const noexcept { return reinterpret_cast<const std::uint8_t*>(view().data()); }

    void append(std::string_view bytes);
    void reserve(std::size_t bytes);
    void clear() noexcept { m_bytes.reset(); }
    /// Moves the bytes out when they are not shared, else copies them; this Data is empty afterwards.
    std::string take();

    bool operator==(const Data& other) const noexcept { return view() == other.view(); }
    std::string description() const;

private:
    std::shared_ptr<std::string> m_bytes;
};

}  // namespace velkor::NS
