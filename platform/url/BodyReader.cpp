#include "platform/url/BodyReader.h"

#include <algorithm>
#include <cstring>

namespace velkor::NS::detail {

std::size_t BodyReader::read(char* to, std::size_t room) noexcept {
    std::size_t count = 0;
    while (count < room && m_part < m_parts.size()) {
        const auto rest = m_parts[m_part].view().substr(m_offset);
        const std::size_t step = std::min(room - count, rest.size());
        if (step > 0) std::memcpy(to + count, rest.data(), step);
        count += step;
        m_offset += step;
        if (step == rest.size()) {
            ++m_part;
            m_offset = 0;
        }
    }
    return count;
}

bool BodyReader::seek(std::uint64_t offset) noexcept {
    std::size_t part = 0;
    while (part < m_parts.size() && offset >= m_parts[part].size()) offset -= m_parts[part++].size();
    if (part == m_parts.size() && offset > 0) return false;
    m_part = part;
    m_offset = static_cast<std::size_t>(offset);
    return true;
}

}  // namespace velkor::NS::detail
