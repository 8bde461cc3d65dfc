#include "platform/url/URLRequest.h"

#include "platform/url/HeaderName.h"

namespace velkor::NS {

std::string URLRequest::valueForHTTPHeaderField(std::string_view name) const {
    std::string joined;
    bool first = true;
    for (const auto& [field, value] : m_headers) {
        if (!detail::sameHeaderName(field, name)) continue;
        if (!std::exchange(first, false)) joined += ',';
        joined += value;
    }
    return joined;
}

Data URLRequest::httpBody() const {
    if (m_bodyParts.empty()) return {};
    if (m_bodyParts.size() == 1) return m_bodyParts.front();
    std::string whole;
    whole.reserve(httpBodyLength());
    for (const Data& part : m_bodyParts) whole.append(part.view());
    return Data(std::move(whole));
}

std::size_t URLRequest::httpBodyLength() const noexcept {
    std::size_t length = 0;
    for (const Data& part : m_bodyParts) length += part.size();
    return length;
}

void MutableURLRequest::setValueForHTTPHeaderField(std::string_view value, std::string_view name) {
    std::erase_if(m_headers, [&](const auto& header) { return detail::sameHeaderName(header.first, name); });
    addValueForHTTPHeaderField(value, name);
}

void MutableURLRequest::addValueForHTTPHeaderField(std::string_view value, std::string_view name) {
    m_headers.emplace_back(name, value);
}

}  // namespace velkor::NS
