#include "service/MultipartForm.h"

#include <algorithm>
#include <cctype>

namespace velkor::service {
namespace {

constexpr std::size_t longestHead = 32 << 10;  // fields and part headers together
constexpr std::size_t mostFields = 32;
constexpr std::size_t longestBoundary = 70;
constexpr std::string_view lineBreak = "\r\n";

bool startsWithIgnoringCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), text.begin(), [](char a, char b) {
               return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
           });
}

/// The value of a header's parameter, with or without quotation marks.
std::optional<std::string_view> parameterOf(std::string_view header, std::string_view name) {
    for (std::size_t at = header.find(';'); at != header.npos; at = header.find(';', at)) {
        at = std::min(header.find_first_not_of("; \t", at), header.size());
        std::string_view rest = header.substr(at);
        if (!startsWithIgnoringCase(rest, name) || rest.size() <= name.size() || rest[name.size()] != '=') continue;
        rest.remove_prefix(name.size() + 1);
        if (!rest.starts_with('"')) return rest.substr(0, rest.find_first_of("; \t"));
        const auto end = rest.find('"', 1);
        if (end == rest.npos) return std::nullopt;
        return rest.substr(1, end - 1);
    }
    return std::nullopt;
}

/// The name of the part with these headers.
std::optional<std::string_view> partName(std::string_view headers) {
    while (!headers.empty()) {
        const auto line = headers.substr(0, headers.find(lineBreak));
        if (startsWithIgnoringCase(line, "content-disposition:")) return parameterOf(line, "name");
        headers.remove_prefix(std::min(line.size() + lineBreak.size(), headers.size()));
    }
    return std::nullopt;
}

}  // namespace

MultipartForm::MultipartForm(std::string_view contentType, std::uint64_t length) : m_length(length) {
    const auto boundary = parameterOf(contentType, "boundary");
    if (!startsWithIgnoringCase(contentType, "multipart/form-data") || !boundary || boundary->empty() ||
        boundary->size() > longestBoundary) {
        return;
    }
    m_delimiter = "--";
    m_delimiter += *boundary;
}

bool MultipartForm::take(std::string_view bytes, std::string_view& content) {
    content = {};
    if (m_delimiter.empty() || bytes.size() > m_length - m_taken) return false;
    m_taken += bytes.size();
    if (!m_atFile) {
        const auto before = m_head.size();
        m_head.append(bytes.substr(0, std::min(bytes.size(), longestHead - before)));
        if (!readHead() || (!m_atFile && m_head.size() == longestHead)) return false;
        if (!m_atFile) return true;
        bytes.remove_prefix(m_head.size() - before);
        // The closing line must still fit in.
        if (m_length - m_head.size() < lineBreak.size() + m_delimiter.size() + 2) return false;
    }
    // All but the last bytes of the body is content for sure.
    const std::uint64_t held = std::min(m_length - m_head.size(), m_delimiter.size() + 2 + 2 * lineBreak.size());
    const std::uint64_t start = m_taken - bytes.size(), surely = m_length - held;
    const auto size = static_cast<std::size_t>(start < surely ? std::min<std::uint64_t>(surely - start, bytes.size()) : 0);
    content = bytes.substr(0, size);
    m_tail.append(bytes.substr(size));
    return true;
}

std::optional<std::string_view> MultipartForm::finish() const {
    if (!m_atFile || m_taken != m_length) return std::nullopt;
    std::string_view tail = m_tail;
    // Some clients end the closing line, most do not.
    if (tail.ends_with(lineBreak)) tail.remove_suffix(lineBreak.size());
    for (const std::string_view part : {std::string_view("--"), std::string_view(m_delimiter), lineBreak}) {
        if (!tail.ends_with(part)) return std::nullopt;
        tail.remove_suffix(part.size());
    }
    return tail;
}

std::uint64_t MultipartForm::fileSize() const {
    return m_length - m_head.size() -
           std::min<std::uint64_t>(m_length - m_head.size(), lineBreak.size() + m_delimiter.size() + 2);
}

std::optional<std::string_view> MultipartForm::field(std::string_view name) const {
    for (const auto& [key, value] : m_fields) {
        if (key == name) return value;
    }
    return std::nullopt;
}

bool MultipartForm::readHead() {
    for (;;) {
        const std::string_view part = std::string_view(m_head).substr(m_part);
        const std::string opening = m_delimiter + std::string(lineBreak);
        if (!part.starts_with(std::string_view(opening).substr(0, part.size()))) return false;
        const auto headers = part.find("\r\n\r\n", m_delimiter.size());
        if (headers == part.npos) return true;
        const auto name = partName(part.substr(opening.size(), std::max(headers, opening.size()) - opening.size()));
        if (!name) return false;
        const auto value = headers + 2 * lineBreak.size();
        if (*name == "file") {
            m_head.resize(m_part + value);
            m_atFile = true;
            return true;
        }
        const auto end = part.find(std::string(lineBreak) + m_delimiter, value);
        if (end == part.npos) return true;
        if (m_fields.size() == mostFields) return false;
        m_fields.emplace_back(*name, part.substr(value, end - value));
        m_part += end + lineBreak.size();
    }
}

}  // namespace velkor::service
