#include "platform/url/ResponseHead.h"

#include <charconv>

#include "platform/base/Trimmed.h"
#include "platform/url/HeaderName.h"

namespace velkor::NS::detail {

ResponseHead::Step ResponseHead::take(std::string_view line) {
    if (line.starts_with("HTTP/")) {
        begin(line);
        return Step::more;
    }
    m_bytes += line.size();
    if (m_bytes > mostBytes) return Step::tooLong;
    if (trimmed(line).empty()) return end();
    addField(line);
    return Step::more;
}

void ResponseHead::begin(std::string_view statusLine) {
    *this = {};
    const auto space = statusLine.find(' ');
    if (space == std::string_view::npos) return;
    const auto code = trimmed(statusLine.substr(space)).substr(0, 3);
    std::from_chars(code.data(), code.data() + code.size(), m_statusCode);
}

void ResponseHead::addField(std::string_view line) {
    const bool continues = line[0] == ' ' || line[0] == '\t';
    const auto colon = line.find(':');
    if (continues && !m_headers.empty()) {
        m_headers.back().second.append(" ").append(trimmed(line));
    } else if (colon != std::string_view::npos) {
        m_headers.emplace_back(trimmed(line.substr(0, colon)), trimmed(line.substr(colon + 1)));
        const auto& [name, value] = m_headers.back();
        m_hasLocation = m_hasLocation || (sameHeaderName(name, "Location") && !value.empty());
    }
}

ResponseHead::Step ResponseHead::end() const noexcept {
    if (m_statusCode < 200) return Step::interim;
    return m_statusCode < 400 && m_statusCode >= 300 && m_hasLocation ? Step::redirect : Step::complete;
}

}  // namespace velkor::NS::detail
