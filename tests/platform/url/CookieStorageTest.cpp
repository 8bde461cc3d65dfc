#include "platform/url/CookieStorage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "tests/platform/url/ConnectionRecorder.h"
#include "tests/support/FakeService.h"

using namespace velkor::NS;
using velkor::test::exchange;
using velkor::test::FakeAnswer;
using velkor::test::FakeService;

namespace {

struct CookieStorageTest : testing::Test {
    FakeService service;
    CookieStorage& storage = CookieStorage::sharedStorage();

    CookieStorageTest() { service.script("", "/", {FakeAnswer::text("ok")}); }

    /// The names of the cookies that go out to the URL, in alphabetical order.
    std::vector<std::string> sentTo(const std::string& url) {
        exchange(url);
        const std::string header = service.requests().back().header("Cookie").value_or("") + "; ";
        std::vector<std::string> names;
        for (std::size_t from = 0, equals; (equals = header.find('=', from)) != std::string::npos;
             from = header.find("; ", from) + 2) {
            names.push_back(header.substr(from, equals - from));
        }
        std::ranges::sort(names);
        return names;
    }
    std::vector<std::string> storedFor(const std::string& url) const {
        std::vector<std::string> names;
        for (const auto& cookie : storage.cookiesForURL(url)) names.push_back(cookie.name);
        std::ranges::sort(names);
        return names;
    }
};

using Names = std::vector<std::string>;

}  // namespace

TEST_F(CookieStorageTest, DeletesTheSessionCookiesOfAUrlAndNoOthers) {
    service.script("", "/set",
                   {FakeAnswer::text("ok")
                        .withHeader("Set-Cookie", "session=1; Path=/; HttpOnly")
                        .withHeader("Set-Cookie", "empty=; Path=/client")
                        .withHeader("Set-Cookie", "kept=3; Path=/client; Max-Age=3600")
                        .withHeader("Set-Cookie", "elsewhere=4; Path=/other")});
    const std::string server = service.url() + "/client";
    exchange(service.url() + "/set");
    exchange(service.url("localhost") + "/set");
    EXPECT_EQ(storedFor(server + "/lock.json?x=/other"), (Names{"empty", "kept", "session"}));
    EXPECT_EQ(storedFor(service.url() + "/clients"), (Names{"session"})) << "a path ends at a slash";
    EXPECT_EQ(sentTo(server), (Names{"empty", "kept", "session"}));

    storage.deleteSessionCookiesForURL(server);
    EXPECT_EQ(storedFor(server), (Names{"kept"}));
    EXPECT_EQ(sentTo(server), (Names{"kept"}));
    EXPECT_EQ(sentTo(service.url() + "/other"), (Names{"elsewhere"})) << "another path";
    EXPECT_EQ(sentTo(service.url("localhost") + "/client"), (Names{"empty", "kept", "session"})) << "another host";
    storage.deleteSessionCookiesForURL("no url");
    storage.deleteSessionCookiesForURL("");
}

TEST_F(CookieStorageTest, TellsACookiesParts) {
    service.script("", "/set", {FakeAnswer::text("ok").withHeader("Set-Cookie", "a=b=c; Path=/p; HttpOnly")});
    exchange(service.url() + "/set");
    const auto cookies = storage.cookiesForURL(service.url() + "/p/q");
    ASSERT_EQ(cookies.size(), 1u);
    EXPECT_EQ(cookies[0].name, "a");
    EXPECT_EQ(cookies[0].value, "b=c");
    EXPECT_EQ(cookies[0].domain, "127.0.0.1");
    EXPECT_EQ(cookies[0].path, "/p");
    EXPECT_TRUE(cookies[0].sessionOnly);
    EXPECT_FALSE(cookies[0].secure);
    storage.deleteSessionCookiesForURL(service.url() + "/p");
}

TEST_F(CookieStorageTest, IsSharedByTheLoopsOfAllThreads) {
    service.script("", "/set", {FakeAnswer::text("ok").withHeader("Set-Cookie", "shared=1; Path=/")});
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int j = 0; j < 20; ++j) {
                exchange(service.url() + "/set");
                storage.cookiesForURL(service.url());
                storage.deleteSessionCookiesForURL(service.url());
            }
            exchange(service.url() + "/set");
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(sentTo(service.url() + "/"), (Names{"shared"}));
    storage.deleteSessionCookiesForURL(service.url());
}
