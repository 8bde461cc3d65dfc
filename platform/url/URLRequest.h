#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/base/Data.h"
#include "platform/base/Export.h"
#include "platform/base/Object.h"

namespace velkor::NS {

/// One HTTP request: what is sent. Header names compare without regard to case and keep the order and the case in which they
/// came.
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
    /// The body in one piece; a copy when it was set in several parts.
    Data httpBody() const;
    /// The body in the parts that are sent one after the other, shared with whoever set them.
    const std::vector<Data>& httpBodyParts() const noexcept { return m_bodyParts; }
    /// In bytes.
    std::size_t httpBodyLength() const noexcept;
    /// Idle time-out in seconds; 60 unless set. Sent with 60 when it is not above 0, and with 1,000,000 at most.
    double timeoutInterval() const noexcept { return m_timeout; }
    const Headers& allHTTPHeaderFields() const noexcept { return m_headers; }
    /// The values of the field, joined by ","; empty when there is none.
    std::string valueForHTTPHeaderField(std::string_view name) const;

protected:
    std::string m_url;
    std::string m_method = "GET";
    std::vector<Data> m_bodyParts;
    double m_timeout = 60;
    Headers m_headers;
};

class VELKOR_EXPORT MutableURLRequest : public URLRequest {
public:
    using URLRequest::URLRequest;

    void setHTTPMethod(std::string_view method) { m_method = method; }
    void setHTTPBody(Data body) { m_bodyParts = {std::move(body)}; }
    /// A body that is never put together in memory: for large bytes with something before and behind them.
    void setHTTPBodyParts(std::vector<Data> parts) { m_bodyParts = std::move(parts); }
    void setTimeoutInterval(double seconds) { m_timeout = seconds; }
    /// Replaces all values of the field.
    void setValueForHTTPHeaderField(std::string_view value, std::string_view name);
    /// Adds one more value of the field.
    void addValueForHTTPHeaderField(std::string_view value, std::string_view name);
};

}  // namespace velkor::NS
