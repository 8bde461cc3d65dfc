#include "PelmoLib/NSMutableURLRequest+Posts.h"

#include <gtest/gtest.h>

#include "PelmoLib/encodings/NSData_Base64.h"
#include "platform/base/Format.h"
#include "platform/base/Value.h"

namespace velkor {
namespace {

using Headers = NS::URLRequest::Headers;

TEST(NSMutableURLRequestPostsTest, buildsEachShapeOfRequest) {
    const NS::Dictionary params{{"a", "1 2"}, {"b&", 3}, {"c", NS::Null()}};
    const std::string form = "a=1 2&b&=3&c=<null>&";
    const struct {
        NS::MutableURLRequest request;
        std::string_view method, type, body, length;
    } cases[] = {
        {postRequestForURLWithJSON("http://x/y", "{\"a\":1}"), "POST", "application/json", "{\"a\":1}", "7"},
        {postRequestForURLWithJSON("http://x/y", NS::Data::copyOf("[]")), "POST", "application/json", "[]", "2"},
        {postRequestForURLWithJSON("http://x/y", "ä€😀"), "POST", "application/json", "ä€😀", "4"},
        {postRequestForURLWithXml("http://x/y", "<ö/>"), "POST", "application/xml", "<ö/>", "4"},
        {requestWithURL("http://x/y", params), "GET", "application/x-www-form-urlencoded", form, "20"},
        {postRequestForURLParams("http://x/y", params), "POST", "application/x-www-form-urlencoded", form, "20"},
        {putRequestForURL("http://x/y", params), "PUT", "application/x-www-form-urlencoded", form, "20"},
        {requestWithURL("http://x/y", {}), "GET", "application/x-www-form-urlencoded", "", "0"},
    };
    for (const auto& [request, method, type, body, length] : cases) {
        EXPECT_EQ(request.url(), "http://x/y");
        EXPECT_EQ(request.httpMethod(), method);
        EXPECT_EQ(request.httpBody().view(), body);
        EXPECT_EQ(request.allHTTPHeaderFields(),
                  (Headers{{"Content-Type", std::string(type)}, {"Content-Length", std::string(length)}}));
        EXPECT_EQ(request.timeoutInterval(), NS::URLRequest().timeoutInterval());
    }
}

TEST(NSMutableURLRequestPostsTest, cutsTheAuthenticationAtTheCountOfCharacters) {
    const struct {
        std::string_view username, password, pair;
    } cases[] = {
        {"user@example.org", "secret", "user@example.org:secret"},
        {"", "", ":"},
        {"jürgen", "pass", "jürgen:pas"},  // 11 characters of 12 bytes
        {"ü", "ü", "ü:"},                  // 3 characters of 5 bytes
        {"a", "😀b", "a:\xF0\x9F\x98"},     // the cut may fall into a character: 5 of 7 bytes
    };
    for (const auto& [username, password, pair] : cases) {
        NS::MutableURLRequest request("http://x");
        addAuthenticationForUsername(request, username, password);
        EXPECT_EQ(request.allHTTPHeaderFields(), (Headers{{"Authorization", "Basic " + base64Encoding(pair)}}));
        addAuthenticationForUsername(request, "a", "b");
        EXPECT_EQ(request.allHTTPHeaderFields().size(), 2U);  // added, not replaced
    }
}

TEST(NSMutableURLRequestPostsTest, describesItselfAsACommandLine) {
    NS::MutableURLRequest request = postRequestForURLWithJSON("http://x/y?a='b'", "it's");
    request.addValueForHTTPHeaderField("v", "X-Own");
    const std::string text = NS::format("%@", request);
    const std::string tail =
        "\nRequest\n-------\ncurl -X POST -H 'Content-Type: application/json' -H 'Content-Length: 4' -H 'X-Own: v' "
        "'http://x/y?a='b'' -d 'it's'";
    EXPECT_TRUE(text.ends_with(tail)) << text;
    EXPECT_GT(text.size(), tail.size());  // the date
    request.setHTTPMethod("PATCH");
    EXPECT_TRUE(description(request).ends_with(" -d 'it's'"));
    request.setHTTPMethod("DELETE");
    EXPECT_TRUE(description(request).ends_with(" 'http://x/y?a='b''"));
}

}  // namespace
}  // namespace velkor
