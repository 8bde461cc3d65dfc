#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/persistence/FileDescriptor.h"
#include "service/Body.h"

namespace velkor::service {

class BodyReceiver;

/// One request as the router sees it.
struct Request {
    std::string method;         // upper case
    std::string target;         // path and query as sent
    std::string authorization;  // the first "Authorization" header's value; empty without one
    std::string contentType;
    std::string origin;        // scheme and host by which the client reached the service; empty when it does not say
    std::uint64_t length = 0;  // of the body
    Body body;                 // empty when a receiver took it
    std::shared_ptr<BodyReceiver> receiver;
    bool postponed = false;      // it has waited as `Response::postpone` asked
    std::shared_ptr<void> hold;  // kept until the request is answered
};

/// A file that is a whole answer's body.
struct BodyFile {
    NS::FileDescriptor descriptor;
    std::uint64_t size = 0;
};

/// One answer. Bodies are JSON, but for those that are bytes.
struct Response {
    int status = 200;
    std::string body = "{}";
    bool close = false;  // ends the connection after the answer
    /// When set, this is no answer: the request shall be handled again after that time.
    std::optional<std::chrono::milliseconds> postpone = std::nullopt;
    bool isBytes = false;
    std::shared_ptr<const BodyFile> file = nullptr;  // sent from the disk instead of `body`

    static Response json(std::string text) {
        Response response;
        response.body = std::move(text);
        return response;
    }
    /// Without a body.
    static Response empty(int status);
    static Response bytes(std::shared_ptr<const BodyFile> file);
    /// {"error": text}
    static Response error(int status, std::string_view text);
};

/// Takes the body of one request piece by piece, so that it is never whole in memory. Pieces come in order, one at a time, from
/// any thread.
class BodyReceiver {
public:
    virtual ~BodyReceiver() = default;
    /// An answer refuses the request; the rest of the body is never read.
    virtual std::optional<Response> take(std::string_view bytes) = 0;
};

/// Answers requests, raising nothing but `receiver`, which may be out of memory. Any thread, several at a time.
class HttpHandler {
public:
    virtual ~HttpHandler() = default;
    /// Asked when a request with a body has begun, in the thread that serves all connections; null when the body is to be read
    /// into memory.
    virtual std::shared_ptr<BodyReceiver> receiver(const Request&) { return nullptr; }
    /// Asked before a large body is read; an answer refuses the request, and its body is never read.
    virtual std::optional<Response> admit(Request& head, std::size_t bodySize) = 0;
    virtual Response handle(Request& request) = 0;
};

}  // namespace velkor::service
