#include "platform/url/URLRequest.h"

#include <gtest/gtest.h>

#include <map>

#include "platform/url/URLConnection.h"

using namespace velkor::NS;

TEST(HTTPStatusTextTest, NamesTheCode) {
    for (const auto& [code, text] : std::map<std::int64_t, std::string>{{200, "no error"},
                                                                        {401, "unauthorized"},
                                                                        {404, "not found"},
                                                                        {409, "conflict"},
                                                                        {503, "service unavailable"},
                                                                        {299, "success"},
                                                                        {399, "redirected"},
                                                                        {499, "client error"},
                                                                        {599, "server error"},
                                                                        {0, "server error"}}) {
        EXPECT_EQ(localizedStringForStatusCode(code), text) << code;
    }
}

TEST(URLRequestTest, HeaderNamesCompareWithoutCase) {
    MutableURLRequest made("http://host/");
    made.addValueForHTTPHeaderField("1", "X-Field");
    made.addValueForHTTPHeaderField("", "x-field");
    made.addValueForHTTPHeaderField("3", "X-FIELD");
    EXPECT_EQ(made.valueForHTTPHeaderField("x-Field"), "1,,3");
    EXPECT_EQ(made.allHTTPHeaderFields().size(), 3u);
    made.setValueForHTTPHeaderField("4", "X-field");
    EXPECT_EQ(made.allHTTPHeaderFields(), (URLRequest::Headers{{"X-field", "4"}}));
    EXPECT_EQ(made.valueForHTTPHeaderField("Other"), "");
    EXPECT_EQ(made.httpMethod(), "GET");
    EXPECT_EQ(made.timeoutInterval(), 60);
}
