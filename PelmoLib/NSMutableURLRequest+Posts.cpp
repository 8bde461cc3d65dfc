#include "PelmoLib/NSMutableURLRequest+Posts.h"

#include "PelmoLib/encodings/NSData_Base64.h"
#include "PelmoLib/encodings/NSDate+Utils.h"
#include "platform/base/Data.h"
#include "platform/base/Date.h"
#include "platform/base/Format.h"
#include "platform/base/UTF8.h"
#include "platform/base/Value.h"

namespace velkor {

namespace {

NS::MutableURLRequest requestWithBody(std::string_view url, std::string_view contentType, NS::Data body) {
    NS::MutableURLRequest request{std::string(url)};
    request.setValueForHTTPHeaderField(contentType, "Content-Type");
    request.addValueForHTTPHeaderField(NS::format("%lu", NS::utf16Length(body.view())), "Content-Length");
    request.setHTTPBody(std::move(body));
    return request;
}

NS::MutableURLRequest withMethod(std::string_view method, NS::MutableURLRequest request) {
    request.setHTTPMethod(method);
    return request;
}

}  // namespace

NS::MutableURLRequest postRequestForURLWithJSON(std::string_view url, std::string_view json) {
    return postRequestForURLWithJSON(url, NS::Data::copyOf(json));
}

NS::MutableURLRequest postRequestForURLWithJSON(std::string_view url, NS::Data json) {
    return withMethod("POST", requestWithBody(url, "application/json", std::move(json)));
}

NS::MutableURLRequest postRequestForURLWithXml(std::string_view url, std::string_view xml) {
    return withMethod("POST", requestWithBody(url, "application/xml", NS::Data::copyOf(xml)));
}

NS::MutableURLRequest requestWithURL(std::string_view url, const NS::Dictionary& params) {
    std::string form;
    for (const auto& [key, value] : params) form += NS::format("%@=%@&", key, value);
    return requestWithBody(url, "application/x-www-form-urlencoded", NS::Data(std::move(form)));
}

NS::MutableURLRequest postRequestForURLParams(std::string_view url, const NS::Dictionary& params) {
    return withMethod("POST", requestWithURL(url, params));
}

NS::MutableURLRequest putRequestForURL(std::string_view url, const NS::Dictionary& params) {
    return withMethod("PUT", requestWithURL(url, params));
}

void addAuthenticationForUsername(NS::MutableURLRequest& request, std::string_view username, std::string_view password) {
    std::string pair = NS::format("%@:%@", username, password);
    pair.resize(NS::utf16Length(pair));
    request.addValueForHTTPHeaderField(NS::format("Basic %@", base64Encoding(pair)), "Authorization");
}

std::string description(const NS::MutableURLRequest& request) {
    std::string text =
        NS::format("%@\nRequest\n-------\ncurl -X %@", descriptionWithCurrentLocale(NS::Date::now()), request.httpMethod());
    for (const auto& [name, value] : request.allHTTPHeaderFields()) text += NS::format(" -H '%@: %@'", name, value);
    text += NS::format(" '%@'", request.url());
    const std::string_view method = request.httpMethod();
    if (method == "POST" || method == "PUT" || method == "PATCH") text += NS::format(" -d '%@'", request.httpBody().view());
    return text;
}

}  // namespace velkor
