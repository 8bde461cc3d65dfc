#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/base/Export.h"
#include "platform/base/Data.h"
#include "platform/base/Object.h"

namespace velkor::NS {

/// One HTTP request: what is sent. Header names compare without regard to case and keep the order and the case in which they came.
class VELKOR_EXPORT URLRequest {
public:
    using Headers = std::vector<std::pair<std::string, std::string>>;

    URLRequest() = default;
    explicit URLRequest(std::string url) : m_url(std::move(url)) {}
    virtual ~URLRequest() = default;
    URLRequest(const URLRequest&) = default;
    URLRequest& operator=(const URLRequest&) = default;

    /// The URL's text as given; it is not checked before the request is sent.
    const std::string& url() const noexcept { return m_url; }
    const std::string& httpMethod() const noexcept { return m_method; }
    const Data& httpBody() const noexcept { return m_body; }
    /// Idle time-out in seconds; 60 unless set.
    double timeoutInterval() const noexcept { return m_timeout; }
    const Headers& allHTTPHeaderFields() const noexcept { return m_headers; }
    /// The values of the field, joined by ","; empty when there is none.
    std::string valueForHTTPHeaderField(std::string_view name) const;

protected:
    std::string m_url;
    std::string m_method = "GET";
    Data m_body;
    double m_timeout = 60;
    Headers m_headers;
};

class VELKOR_EXPORT MutableURLRequest : public URLRequest {
public:
    using URLRequest::URLRequest;

    void setURL(std::string url) { m_url = std::move(url); }
    void setHTTPMethod(std::string_view method) { m_method = method; }
    void setHTTPBody(Data body) { m_body = std::move(body); }
    void setTimeoutInterval(double seconds) { m_timeout = seconds; }
    /// Replaces all values of the field.
    void setValueForHTTPHeaderField(std::string_view value, std::string_view name);
    /// Adds one more value of the field.
    void addValueForHTTPHeaderField(std::string_view value, std::string_view name);
};

}  // namespace velkor::NS
