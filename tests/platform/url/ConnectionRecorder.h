#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/concurrency/RunLoop.h"
#include "platform/url/URLConnection.h"

namespace velkor::test {

/// Follows one connection and keeps what it is told.
struct ConnectionRecorder : NS::URLConnectionDelegate {
    int ends = 0;
    std::optional<NS::URLResponse> response;
    std::string body;
    std::size_t chunks = 0;
    std::vector<std::int64_t> sent;  // in all, after each step
    std::int64_t expectedToSend = 0;
    std::optional<NS::Error> error;
    std::function<void(NS::URLConnection&)> onResponse;
    std::function<void(NS::URLConnection&)> onData;
    std::function<void(NS::URLConnection&)> onEnd;

    void connectionDidReceiveResponse(NS::URLConnection& connection, const NS::URLResponse& received) override {
        response = received;
        if (onResponse) onResponse(connection);
    }
    void connectionDidReceiveData(NS::URLConnection& connection, std::string_view bytes) override {
        body += bytes;
        ++chunks;
        if (onData) onData(connection);
    }
    void connectionDidSendBodyData(NS::URLConnection&, std::int64_t, std::int64_t total, std::int64_t expected) override {
        sent.push_back(total);
        expectedToSend = expected;
    }
    void connectionDidFinishLoading(NS::URLConnection& connection) override {
        ++ends;
        if (onEnd) onEnd(connection);
    }
    void connectionDidFailWithError(NS::URLConnection& connection, const NS::Error& failure) override {
        ++ends;
        error = failure;
        if (onEnd) onEnd(connection);
    }

    std::int64_t status() const { return response ? response->statusCode : 0; }
    /// The error's code, 0 after success.
    std::int64_t code() const { return error ? error->code() : 0; }
};

/// Sends the request on the current thread's loop and waits for the end.
inline ConnectionRecorder exchange(const NS::URLRequest& request, std::uint64_t maximumSize = 1 << 30) {
    ConnectionRecorder recorder;
    NS::URLConnection connection(request, &recorder);
    connection.setMaximumResponseSize(maximumSize);
    connection.start();
    NS::RunLoop::current().runUntil([&] { return recorder.ends > 0; }, 30);
    return recorder;
}

inline ConnectionRecorder exchange(const std::string& url) { return exchange(NS::URLRequest(url)); }

}  // namespace velkor::test
