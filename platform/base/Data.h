#pragma once

#include <cstddef>
#include <cstdint>
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
    Data(const Data& other) noexcept;
    Data(Data&& other) noexcept : m_storage(other.m_storage) { other.m_storage = nullptr; }
    Data& operator=(const Data& other) noexcept;
    Data& operator=(Data&& other) noexcept;
    ~Data();
    static Data copyOf(std::string_view bytes) { return Data(std::string(bytes)); }

    std::size_t size() const noexcept { return view().size(); }
    bool empty() const noexcept { return size() == 0; }
    /// The bytes; valid while this Data is neither changed nor destroyed.
    std::string_view view() const noexcept;

    void append(std::string_view bytes);
    void reserve(std::size_t bytes);
    void clear() noexcept { *this = Data(); }
    /// Moves the bytes out when they are not shared, else copies them; this Data is empty afterwards.
    std::string take();

    bool operator==(const Data& other) const noexcept { return view() == other.view(); }
    /// The bytes in hexadecimal, four a group: "<68656c6c 6f>".
    std::string description() const;

private:
    friend class Value;
    struct Storage;
    static void destroy(Storage* storage) noexcept;
    std::string& ownBytes();

    Storage* m_storage = nullptr;
};

}  // namespace velkor::NS
