#pragma once

#include <cstddef>
#include <string_view>

#include "platform/base/Export.h"

namespace velkor {

/// Walks through bytes that somebody else owns and that outlive the scanner.
class VELKOR_EXPORT CDataScanner {
public:
    explicit CDataScanner(std::string_view data) noexcept : m_begin(data.data()), m_at(m_begin), m_end(m_begin + data.size()) {}

    bool isAtEnd() const noexcept { return m_at == m_end; }
    /// Bytes before the current place.
    std::size_t scanLocation() const noexcept { return static_cast<std::size_t>(m_at - m_begin); }
    /// The byte at the current place; 0 at the end.
    char currentCharacter() const noexcept { return m_at == m_end ? '\0' : *m_at; }
    /// Steps over the byte if it stands at the current place.
    bool scanCharacter(char character) noexcept {
        if (m_at == m_end || *m_at != character) return false;
        ++m_at;
        return true;
    }
    /// Steps over the text if it stands at the current place.
    bool scanUTF8String(std::string_view text) noexcept {
        if (!std::string_view(m_at, m_end).starts_with(text)) return false;
        m_at += text.size();
        return true;
    }
    /// Steps over blanks, tabs and line ends.
    void skipWhitespace() noexcept {
        while (m_at != m_end && (*m_at == ' ' || *m_at == '\n' || *m_at == '\r' || *m_at == '\t')) ++m_at;
    }

protected:
    const char* m_begin;
    const char* m_at;
    const char* m_end;
};

}  // namespace velkor
