#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/base/Data.h"

namespace velkor::NS::detail {

/// Reads the parts of a request's body one after the other. The parts must outlive it.
class BodyReader {
public:
    explicit BodyReader(std::span<const Data> parts) noexcept : m_parts(parts) {}

    /// Copies as many of the next bytes as there is room for; returns their number, 0 at the end.
    std::size_t read(char* to, std::size_t room) noexcept;
    /// Goes on reading at an offset from the body's start; false, and nothing changes, behind its end.
    bool seek(std::uint64_t offset) noexcept;

private:
    std::span<const Data> m_parts;
    std::size_t m_part = 0;
    std::size_t m_offset = 0;  // within the part
};

}  // namespace velkor::NS::detail
