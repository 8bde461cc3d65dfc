#include "PelmoLib/NSMutableURLRequest+Posts.h"

#include "PelmoLib/encodings/NSData_Base64.h"
#include "platform/base/Data.h"
#include "platform/base/Date.h"
#include "platform/base/Format.h"
#include "platform/base/UTF8.h"
#include "platform/base/Value.h"

namespace velkor {

namespace {

NS::MutableURLRequest requestWithBody(std::string_view url, std::string_view contentType, std::string_view text) {
    NS::MutableURLRequest request{std::string(url)};
    request.setValueForHTTPHeaderField(contentType, "Content-Type");
    request.addValueForHTTPHeaderField(std::to_string(NS::utf16Length(text)), "Content-Length");
    request.setHTTPBody(NS::Data::copyOf(text));
    return request;
}

NS::MutableURLRequest posting(NS::MutableURLRequest request, std::string_view method) {
    request.setHTTPMethod(method);
    return request;
}

}  // namespace

NS::MutableURLRequest postRequestForURLWithJSON(std::string_view url, std::string_view json) {
    return posting(requestWithBody(url, "application/json", json), "POST");
}

NS::MutableURLRequest postRequestForURLWithXml(std::string_view url, std::string_view xml) {
    return posting(requestWithBody(url, "application/xml", xml), "POST");
}

NS::MutableURLRequest requestWithURL(std::string_view url, const NS::Dictionary& params) {
    std::string form;
    for (const auto& [key, value] : params) {
        form += key;
        form += '=';
        form += NS::describe(value);
        form += '&';
    }
    return requestWithBody(url, "application/x-www-form-urlencoded", form);
}

NS::MutableURLRequest postRequestForURLParams(std::string_view url, const NS::Dictionary& params) {
    return posting(requestWithURL(url, params), "POST");
}

NS::MutableURLRequest putRequestForURL(std::string_view url, const NS::Dictionary& params) {
    return posting(requestWithURL(url, params), "PUT");
}

void addAuthenticationForUsername(NS::MutableURLRequest& request, std::string_view username, std::string_view password) {
    std::string pair = NS::format("%@:%@", username, password);
    pair.resize(NS::utf16Length(pair));
    request.addValueForHTTPHeaderField("Basic " + base64Encoding(NS::Data(std::move(pair))), "Authorization");
}

std::string description(const NS::MutableURLRequest& request) {
    std::string text = NS::format("%@\nRequest\n-------\ncurl -X %@", NS::Date::now(), request.httpMethod());
    for (const auto& [name, value] : request.allHTTPHeaderFields()) text += NS::format(" -H '%@: %@'", name, value);
    text += NS::format(" '%@'", request.url());
    const std::string& method = request.httpMethod();
    if (method == "POST" || method == "PUT" || method == "PATCH") text += NS::format(" -d '%@'", request.httpBody().view());
    return text;
}

}  // namespace velkor
