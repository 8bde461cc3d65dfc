#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/base/Export.h"

namespace velkor::NS {

struct Cookie {
    std::string name;
    std::string value;
    std::string domain;
    std::string path;
    bool secure = false;
    /// Ends with the program: the server gave it no expiry.
    bool sessionOnly = false;
};

/// The cookies that all connections of the process share; in memory only. Any thread.
class VELKOR_EXPORT CookieStorage {
public:
    static CookieStorage& sharedStorage();
    /// The cookies that would be sent to the URL.
    std::vector<Cookie> cookiesForURL(std::string_view url) const;
    /// Removes the session-only cookies that would be sent to the URL, and only those.
    void deleteSessionCookiesForURL(std::string_view url);
    /// For the connections of this layer: the libcurl share handle.
    void* shareHandle() noexcept;

private:
    CookieStorage();
    struct State;
    State* m_state;  // lives until the process ends
};

}  // namespace velkor::NS
