#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace velkor::service {

/// The bytes of a request's body: one buffer, filled once, never copied.
class Body {
public:
    Body() = default;
    explicit Body(std::string_view bytes) : Body(bytes.size()) { bytes.copy(data(), bytes.size()); }
    /// Room for `size` bytes, not initialised.
    explicit Body(std::size_t size) : m_bytes(std::make_unique_for_overwrite<char[]>(size)), m_size(size) {}

    char* data() noexcept { return m_bytes.get(); }
    std::size_t size() const noexcept { return m_size; }
    std::string_view view() const noexcept { return {m_bytes.get(), m_size}; }
    void clear() noexcept { *this = Body(); }

private:
    std::unique_ptr<char[]> m_bytes;
    std::size_t m_size = 0;
};

/// One request as the router sees it.
struct Request {
    std::string method;         // upper case
    std::string target;         // path and query as sent
    std::string authorization;  // the first "Authorization" header's value; empty without one
    Body body;
    bool postponed = false;      // it has waited as `Response::postpone` asked
    std::shared_ptr<void> hold;  // kept until the request is answered
};

/// One answer. Bodies are JSON.
struct Response {
    int status = 200;
    std::string body = "{}";
    bool close = false;  // ends the connection after the answer
    /// When set, this is no answer: the request shall be handled again after that time.
    std::optional<std::chrono::milliseconds> postpone;

    static Response json(std::string text) { return {200, std::move(text), false, std::nullopt}; }
    /// {"error": text}
    static Response error(int status, std::string_view text);
};

/// Answers requests. Any thread, several at a time.
class HttpHandler {
public:
    virtual ~HttpHandler() = default;
    /// Asked before a large body is read; an answer refuses the request, and its body is never read.
    virtual std::optional<Response> admit(Request& head, std::size_t bodySize) = 0;
    virtual Response handle(Request& request) = 0;
};

}  // namespace velkor::service
