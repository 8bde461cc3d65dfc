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

void MutableURLRequest::setValueForHTTPHeaderField(std::string_view value, std::string_view name) {
    std::erase_if(m_headers, [&](const auto& header) { return detail::sameHeaderName(header.first, name); });
    addValueForHTTPHeaderField(value, name);
}

void MutableURLRequest::addValueForHTTPHeaderField(std::string_view value, std::string_view name) {
    m_headers.emplace_back(name, value);
}

}  // namespace velkor::NS
