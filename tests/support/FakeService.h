// A small HTTP/1.1 server on a free loopback port that answers by script, for tests of all layers.
#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace velkor::test {

/// A request as it came over the wire.
struct FakeRequest {
    std::string method;
    std::string target;  // path and query, as sent
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    std::size_t connection = 0;  // number of the connection that it came on, from 1: tells keep-alive

    /// The values of the header, joined by ","; none when it was not sent.
    std::optional<std::string> header(std::string_view name) const;
};

/// What to do with one request. Made by a factory, refined by the chained calls:
///     FakeAnswer::json(R"({"a":1})").withHeader("Set-Cookie", "a=b").heldUntilReleased()
struct FakeAnswer {
    static constexpr std::size_t none = static_cast<std::size_t>(-1);

    int status = 200;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    bool held = false;               // waits for `FakeService::release` before the first byte
    std::size_t heldAfter = none;    // waits for `release` after so many bytes of the body
    std::size_t cutOffAfter = none;  // closes after so many bytes of the body, though the full length was announced
    bool unannounced = false;        // sends the body in chunks, without a length
    std::optional<std::string> raw;  // sent instead of an HTTP answer, then closes

    static FakeAnswer text(std::string_view text, int status = 200, std::string_view type = "text/plain");
    static FakeAnswer json(std::string_view body, int status = 200) { return text(body, status, "application/json"); }
    /// 200 with a body that is no JSON.
    static FakeAnswer notJson() { return text("<html>", 200, "text/html"); }
    /// 409 as for a user whose lock another instance holds.
    static FakeAnswer busy() { return json(R"({"error":"User busy."})", 409); }
    static FakeAnswer redirect(std::string_view location, int status = 302);
    /// Sends these bytes, which need be no HTTP, and closes the connection.
    static FakeAnswer rawBytes(std::string_view bytes);
    /// Closes the connection without an answer.
    static FakeAnswer closeAtOnce() { return rawBytes({}); }
    /// Never answers (until the service ends).
    static FakeAnswer hang() { return FakeAnswer().heldUntilReleased(); }

    FakeAnswer withHeader(std::string_view name, std::string_view value) && {
        headers.emplace_back(name, value);
        return std::move(*this);
    }
    FakeAnswer heldUntilReleased() && { return held = true, std::move(*this); }
    FakeAnswer heldAfterBytes(std::size_t bytes) && { return heldAfter = bytes, std::move(*this); }
    FakeAnswer cutOff(std::size_t bytes) && { return cutOffAfter = bytes, std::move(*this); }
    /// Only the first bytes of the body, announced as if they were all.
    FakeAnswer truncated(std::size_t bytes) && { return body.resize(std::min(bytes, body.size())), std::move(*this); }
    FakeAnswer withoutLength() && { return unannounced = true, std::move(*this); }
};

/// The server runs from construction to destruction, each connection on a thread of its own; all calls from any thread. Requests
/// that no route matches get 404 with a JSON error. Connections are kept alive.
class FakeService {
public:
    using Handler = std::function<FakeAnswer(const FakeRequest&)>;
    static constexpr double patience = 30;  // seconds

    FakeService();
    ~FakeService();
    FakeService(const FakeService&) = delete;
    FakeService& operator=(const FakeService&) = delete;

    int port() const;
    /// "http://127.0.0.1:PORT", without a slash at the end; `host` names the machine otherwise ("localhost").
    std::string url(std::string_view host = "127.0.0.1") const;

    /// Answers requests of the method (empty: any) whose target begins with the prefix, one after another; the last one repeats.
    /// Routes made later come first; so a test overrides what its fixture has set up.
    void script(std::string_view method, std::string_view prefix, std::vector<FakeAnswer> answers);
    /// Answers by a function, called on a thread of the service, one call at a time.
    void route(std::string_view method, std::string_view prefix, Handler handler);
    /// Lets so many held answers go, in the order in which they came to be held; those still to come count too.
    void release(std::size_t count = 1);

    /// All requests so far (complete with body), in order; with a prefix only those whose target begins with it.
    std::vector<FakeRequest> requests(std::string_view prefix = {}) const;
    std::size_t requestCount(std::string_view prefix = {}) const;
    /// Runs the calling thread's run loop until so many requests with the prefix have come; false when patience ends first.
    bool awaitRequests(std::size_t count, std::string_view prefix = {});

private:
    struct State;
    std::unique_ptr<State> m_state;
};

}  // namespace velkor::test
