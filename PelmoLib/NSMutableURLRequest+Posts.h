#pragma once

#include <string>
#include <string_view>

#include "platform/base/Data.h"
#include "platform/base/Dictionary.h"
#include "platform/base/Export.h"
#include "platform/url/URLRequest.h"

namespace velkor {

// Builders of requests. They set method, "Content-Type" and body, add "Content-Length" (characters of the text, as UTF-16 counts
// them; the connection sends the true byte count), and leave time-out and everything else at the platform's defaults.

/// POST with "application/json"; a Data is taken over without being copied.
VELKOR_EXPORT NS::MutableURLRequest postRequestForURLWithJSON(std::string_view url, std::string_view json);
VELKOR_EXPORT NS::MutableURLRequest postRequestForURLWithJSON(std::string_view url, NS::Data json);
/// POST with "application/xml".
VELKOR_EXPORT NS::MutableURLRequest postRequestForURLWithXml(std::string_view url, std::string_view xml);
/// GET, POST and PUT with "application/x-www-form-urlencoded": "key=value&" for each member in the dictionary's order, nothing
/// escaped, the last "&" included.
VELKOR_EXPORT NS::MutableURLRequest requestWithURL(std::string_view url, const NS::Dictionary& params);
VELKOR_EXPORT NS::MutableURLRequest postRequestForURLParams(std::string_view url, const NS::Dictionary& params);
VELKOR_EXPORT NS::MutableURLRequest putRequestForURL(std::string_view url, const NS::Dictionary& params);

/// Adds "Authorization: Basic ...": base64 of "user:password", cut to as many bytes of UTF-8 as the pair has characters.
VELKOR_EXPORT void addAuthenticationForUsername(NS::MutableURLRequest& request, std::string_view username,
                                                std::string_view password);

/// The request as a command line for curl, for logs; nothing in it is escaped. It shows every header: of an authenticated
/// request also the one with the credentials.
VELKOR_EXPORT std::string description(const NS::MutableURLRequest& request);

namespace NS {
inline std::string describe(const MutableURLRequest& request) { return velkor::description(request); }
}  // namespace NS

}  // namespace velkor
