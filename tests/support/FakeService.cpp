#include "tests/support/FakeService.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "platform/concurrency/RunLoop.h"

namespace velkor::test {

namespace {

struct Route {
    std::string method;
    std::string prefix;
    FakeService::Handler handler;

    bool matches(const FakeRequest& request) const {
        return (method.empty() || method == request.method) && request.target.starts_with(prefix);
    }
};

/// The socket of one connection: whole requests in, bytes out.
class Peer {
public:
    explicit Peer(int socket) : m_socket(socket) {
        const int on = 1;
        setsockopt(m_socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    ~Peer() { close(m_socket); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    /// Wakes whoever reads or writes.
    void shutDown() { ::shutdown(m_socket, SHUT_RDWR); }

    /// The next request, or none when the client is gone.
    std::optional<FakeRequest> read() {
        std::size_t end;
        while ((end = m_bytes.find("\r\n\r\n")) == std::string::npos) {
            if (!readMore()) return std::nullopt;
        }
        FakeRequest request = parse(std::string_view(m_bytes).substr(0, end + 2));
        m_bytes.erase(0, end + 4);
        const std::size_t length = std::stoul(request.header("Content-Length").value_or("0"));
        while (m_bytes.size() < length) {
            if (!readMore()) return std::nullopt;
        }
        request.body = m_bytes.substr(0, length);
        m_bytes.erase(0, length);
        return request;
    }

    bool write(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t sent = ::send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent <= 0) return false;
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        }
        return true;
    }

private:
    bool readMore() {
        char buffer[65536];
        const ssize_t got = recv(m_socket, buffer, sizeof buffer, 0);
        if (got > 0) m_bytes.append(buffer, static_cast<std::size_t>(got));
        return got > 0;
    }

    static FakeRequest parse(std::string_view head) {
        FakeRequest request;
        const auto nextLine = [&head] {
            const auto end = head.find("\r\n");
            const auto line = head.substr(0, end);
            head.remove_prefix(end + 2);
            return line;
        };
        const auto first = nextLine();
        const auto space = first.find(' ');
        request.method = first.substr(0, space);
        request.target = first.substr(space + 1, first.rfind(' ') - space - 1);
        while (!head.empty()) {
            const auto line = nextLine();
            const auto colon = line.find(':');
            const auto value = line.find_first_not_of(' ', colon + 1);
            request.headers.emplace_back(line.substr(0, colon), value == std::string_view::npos ? "" : line.substr(value));
        }
        return request;
    }

    const int m_socket;
    std::string m_bytes;
};

std::string headOf(const FakeAnswer& answer) {
    std::string head = "HTTP/1.1 " + std::to_string(answer.status) + " Scripted\r\n";
    for (const auto& [name, value] : answer.headers) head += name + ": " + value + "\r\n";
    if (answer.unannounced) return head + "Transfer-Encoding: chunked\r\n\r\n";
    return head + "Content-Length: " + std::to_string(answer.body.size()) + "\r\n\r\n";
}

std::string chunkOf(std::string_view bytes) {
    char size[20];
    snprintf(size, sizeof size, "%zx\r\n", bytes.size());
    return size + std::string(bytes) + "\r\n";
}

}  // namespace

std::optional<std::string> FakeRequest::header(std::string_view name) const {
    std::optional<std::string> joined;
    for (const auto& [field, value] : headers) {
        if (field.size() != name.size() || strncasecmp(field.data(), name.data(), name.size()) != 0) continue;
        joined = joined ? *joined + "," + value : value;
    }
    return joined;
}

FakeAnswer FakeAnswer::json(std::string_view text, int status) { return FakeAnswer::text(text, status, "application/json"); }

FakeAnswer FakeAnswer::text(std::string_view text, int status, std::string_view type) {
    FakeAnswer answer;
    answer.status = status;
    answer.body = text;
    answer.headers.emplace_back("Content-Type", type);
    return answer;
}

FakeAnswer FakeAnswer::redirect(std::string_view location, int status) {
    return text("moved", status).withHeader("Location", location);
}

FakeAnswer FakeAnswer::closeAtOnce() {
    FakeAnswer answer;
    answer.closing = true;
    return answer;
}

FakeAnswer FakeAnswer::rawBytes(std::string_view bytes) {
    FakeAnswer answer = closeAtOnce();
    answer.raw = bytes;
    return answer;
}

FakeAnswer FakeAnswer::withHeader(std::string_view name, std::string_view value) && {
    headers.emplace_back(name, value);
    return std::move(*this);
}
FakeAnswer FakeAnswer::heldUntilReleased() && {
    held = true;
    return std::move(*this);
}
FakeAnswer FakeAnswer::heldAfterBytes(std::size_t bytes) && {
    heldAfter = bytes;
    return std::move(*this);
}
FakeAnswer FakeAnswer::cutOff(std::size_t bytes) && {
    cutOffAfter = bytes;
    return std::move(*this);
}
FakeAnswer FakeAnswer::truncated(std::size_t bytes) && {
    body.resize(std::min(bytes, body.size()));
    return std::move(*this);
}
FakeAnswer FakeAnswer::withoutLength() && {
    unannounced = true;
    return std::move(*this);
}

class FakeService::Impl {
public:
    Impl() {
        m_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* any = reinterpret_cast<sockaddr*>(&address);
        if (m_listener < 0 || bind(m_listener, any, size) != 0 || listen(m_listener, 128) != 0 || getsockname(m_listener, any, &size) != 0) {
            throw std::runtime_error("the fake service cannot listen");
        }
        m_port = ntohs(address.sin_port);
        m_acceptor = std::thread([this] { accept(); });
    }

    ~Impl() {
        {
            std::unique_lock lock(m_mutex);
            m_ending = true;
            for (auto& peer : m_peers) peer->shutDown();
            m_changed.notify_all();
        }
        ::shutdown(m_listener, SHUT_RDWR);
        m_acceptor.join();
        for (auto& thread : m_threads) thread.join();
        close(m_listener);
    }

    int port() const { return m_port; }

    void addRoute(Route route) {
        std::unique_lock lock(m_mutex);
        m_routes.insert(m_routes.begin(), std::make_shared<Route>(std::move(route)));
    }

    void release(std::size_t count) {
        std::unique_lock lock(m_mutex);
        m_released += count;
        m_changed.notify_all();
    }

    std::vector<FakeRequest> requests(std::string_view prefix) const {
        std::unique_lock lock(m_mutex);
        std::vector<FakeRequest> matching;
        for (const auto& request : m_requests) {
            if (request.target.starts_with(prefix)) matching.push_back(request);
        }
        return matching;
    }

    std::size_t requestCount(std::string_view prefix) const {
        std::unique_lock lock(m_mutex);
        return static_cast<std::size_t>(
            std::count_if(m_requests.begin(), m_requests.end(), [&](const auto& request) { return request.target.starts_with(prefix); }));
    }

    /// The loop that is woken by each request; null for none.
    void setWaiter(NS::RunLoop* loop) {
        std::unique_lock lock(m_mutex);
        m_waiter = loop;
    }

private:
    void accept() {
        for (int socket; (socket = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
            std::unique_lock lock(m_mutex);
            auto peer = std::make_shared<Peer>(socket);
            m_peers.push_back(peer);
            if (m_ending) peer->shutDown();
            m_threads.emplace_back([this, peer, number = m_peers.size()] { serve(*peer, number); });
        }
    }

    void serve(Peer& peer, std::size_t number) {
        while (auto request = peer.read()) {
            request->connection = number;
            if (!answer(peer, *request)) break;
        }
        peer.shutDown();
    }

    /// Records the request and answers it; false when the connection is to be closed.
    bool answer(Peer& peer, const FakeRequest& request) {
        std::shared_ptr<Route> route;
        {
            std::unique_lock lock(m_mutex);
            auto found = std::find_if(m_routes.begin(), m_routes.end(), [&](auto& one) { return one->matches(request); });
            if (found != m_routes.end()) route = *found;
            m_requests.push_back(request);
            if (m_waiter) m_waiter->post([] {});
        }
        FakeAnswer answer = FakeAnswer::json(R"({"error":"no such route"})", 404);
        if (route) {
            std::unique_lock lock(m_handlerMutex);
            answer = route->handler(request);
        }
        if (answer.held && !hold()) return false;
        if (answer.closing) {
            peer.write(answer.raw);
            return false;
        }
        return peer.write(headOf(answer)) && (request.method == "HEAD" || sendBody(peer, answer));
    }

    bool sendBody(Peer& peer, const FakeAnswer& answer) {
        const auto send = [&](std::string_view part) {
            return part.empty() || peer.write(answer.unannounced ? chunkOf(part) : std::string(part));
        };
        const std::string_view body = std::string_view(answer.body).substr(0, answer.cutOffAfter);
        const std::size_t first = std::min(answer.heldAfter, body.size());
        if (!send(body.substr(0, first))) return false;
        if (answer.heldAfter != FakeAnswer::none && !hold()) return false;
        if (!send(body.substr(first)) || answer.cutOffAfter != FakeAnswer::none) return false;
        return !answer.unannounced || peer.write("0\r\n\r\n");
    }

    /// Waits for the release; false when the service ends first.
    bool hold() {
        std::unique_lock lock(m_mutex);
        const auto ticket = ++m_held;
        m_changed.wait(lock, [&] { return m_ending || m_released >= ticket; });
        return !m_ending;
    }

    int m_listener = -1;
    int m_port = 0;
    std::thread m_acceptor;
    std::mutex m_handlerMutex;
    mutable std::mutex m_mutex;
    // Guarded by m_mutex.
    std::condition_variable m_changed;
    std::vector<std::shared_ptr<Route>> m_routes;
    std::vector<FakeRequest> m_requests;
    std::vector<std::shared_ptr<Peer>> m_peers;
    std::vector<std::thread> m_threads;
    NS::RunLoop* m_waiter = nullptr;
    std::size_t m_held = 0;
    std::size_t m_released = 0;
    bool m_ending = false;
};

FakeService::FakeService() : m_impl(std::make_unique<Impl>()) {}
FakeService::~FakeService() = default;

int FakeService::port() const { return m_impl->port(); }

std::string FakeService::url(std::string_view host) const { return "http://" + std::string(host) + ":" + std::to_string(port()); }

void FakeService::script(std::string_view method, std::string_view prefix, std::vector<FakeAnswer> answers) {
    if (answers.empty()) throw std::invalid_argument("a script has at least one answer");
    route(method, prefix, [answers = std::move(answers), next = std::size_t(0)](const FakeRequest&) mutable {
        return answers[std::min(next++, answers.size() - 1)];
    });
}

void FakeService::route(std::string_view method, std::string_view prefix, Handler handler) {
    m_impl->addRoute({std::string(method), std::string(prefix), std::move(handler)});
}

void FakeService::release(std::size_t count) { m_impl->release(count); }

std::vector<FakeRequest> FakeService::requests(std::string_view prefix) const { return m_impl->requests(prefix); }

std::size_t FakeService::requestCount(std::string_view prefix) const { return m_impl->requestCount(prefix); }

bool FakeService::awaitRequests(std::size_t count, std::string_view prefix) {
    auto& loop = NS::RunLoop::current();
    m_impl->setWaiter(&loop);
    const bool came = loop.runUntil([&] { return requestCount(prefix) >= count; }, static_cast<double>(patience.count()));
    m_impl->setWaiter(nullptr);
    return came;
}

}  // namespace velkor::test
