#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/url/URLRequest.h"

namespace velkor::NS::detail {

/// Reads the head of an answer line by line, as libcurl hands it on: status line, headers, empty line. A new status line begins a
/// new answer (after an interim one, or in a chain of redirects).
class ResponseHead {
public:
    /// Most bytes that the headers of one answer may have.
    static constexpr std::size_t mostBytes = 256 * 1024;
    /// What a line has brought: `more` is to come; the head of an answer that is not the last one (`interim`, `redirect`) or of
    /// the last one (`complete`) has ended; or it is `tooLong`.
    enum class Step { more, interim, redirect, complete, tooLong };

    Step take(std::string_view line);
    /// 0 before the first status line.
    std::int64_t statusCode() const noexcept { return m_statusCode; }
    const URLRequest::Headers& headers() const noexcept { return m_headers; }

private:
    void begin(std::string_view statusLine);
    void addField(std::string_view line);
    Step end() const noexcept;

    std::int64_t m_statusCode = 0;
    URLRequest::Headers m_headers;
    std::size_t m_bytes = 0;
    bool m_hasLocation = false;
};

}  // namespace velkor::NS::detail
