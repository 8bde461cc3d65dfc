#include "tests/support/FakeService.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "platform/concurrency/RunLoop.h"
#include "platform/url/HeaderName.h"

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
        FakeRequest request = parse(m_bytes.substr(0, end + 2));
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

    static FakeRequest parse(const std::string& head) {
        FakeRequest request;
        std::istringstream lines(head);
        std::string line;
        lines >> request.method >> request.target;
        std::getline(lines, line);
        while (std::getline(lines, line)) {
            const auto colon = line.find(':');
            const auto value = std::min(line.find_first_not_of(' ', colon + 1), line.size() - 1);
            request.headers.emplace_back(line.substr(0, colon), line.substr(value, line.size() - 1 - value));  // without the CR
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
        if (NS::detail::sameHeaderName(field, name)) joined = joined ? *joined + "," + value : value;
    }
    return joined;
}

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

FakeAnswer FakeAnswer::rawBytes(std::string_view bytes) {
    FakeAnswer answer;
    answer.raw = bytes;
    return answer;
}

struct FakeService::State {
    int listener = -1;
    int port = 0;
    std::thread acceptor;
    std::mutex handlerMutex;
    std::mutex mutex;
    // Guarded by `mutex`.
    std::condition_variable changed;
    std::vector<std::shared_ptr<Route>> routes;
    std::vector<FakeRequest> requests;
    std::vector<std::shared_ptr<Peer>> peers;
    std::vector<std::thread> threads;
    NS::RunLoop* waiter = nullptr;  // woken by each request
    std::size_t heldCount = 0;
    std::size_t releasedCount = 0;
    bool ending = false;

    void listen() {
        listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* any = reinterpret_cast<sockaddr*>(&address);
        if (listener < 0 || bind(listener, any, size) != 0 || ::listen(listener, 128) != 0 ||
            getsockname(listener, any, &size) != 0) {
            throw std::runtime_error("the fake service cannot listen");
        }
        port = ntohs(address.sin_port);
        acceptor = std::thread([this] { accept(); });
    }

    void accept() {
        for (int socket; (socket = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
            std::unique_lock lock(mutex);
            auto peer = std::make_shared<Peer>(socket);
            peers.push_back(peer);
            if (ending) peer->shutDown();
            threads.emplace_back([this, peer, number = peers.size()] { serve(*peer, number); });
        }
    }

    void serve(Peer& peer, std::size_t number) {
        while (auto request = peer.read()) {
            request->connection = number;
            if (!send(peer, *request, answerTo(*request))) break;
        }
        peer.shutDown();
    }

    FakeAnswer answerTo(const FakeRequest& request) {
        std::shared_ptr<Route> route;
        {
            std::unique_lock lock(mutex);
            auto found = std::find_if(routes.begin(), routes.end(), [&](auto& one) { return one->matches(request); });
            if (found != routes.end()) route = *found;
            requests.push_back(request);
            if (waiter) waiter->post([] {});
        }
        if (!route) return FakeAnswer::json(R"({"error":"no such route"})", 404);
        std::unique_lock lock(handlerMutex);
        return route->handler(request);
    }

    /// False when the connection is to be closed.
    bool send(Peer& peer, const FakeRequest& request, const FakeAnswer& answer) {
        if (answer.held && !hold()) return false;
        if (answer.raw) return peer.write(*answer.raw) && false;
        return peer.write(headOf(answer)) && (request.method == "HEAD" || sendBody(peer, answer));
    }

    bool sendBody(Peer& peer, const FakeAnswer& answer) {
        const auto sendPart = [&](std::string_view part) {
            return part.empty() || (answer.unannounced ? peer.write(chunkOf(part)) : peer.write(part));
        };
        const std::string_view body = std::string_view(answer.body).substr(0, answer.cutOffAfter);
        const std::size_t first = std::min(answer.heldAfter, body.size());
        if (!sendPart(body.substr(0, first))) return false;
        if (answer.heldAfter != FakeAnswer::none && !hold()) return false;
        if (!sendPart(body.substr(first)) || answer.cutOffAfter != FakeAnswer::none) return false;
        return !answer.unannounced || peer.write("0\r\n\r\n");
    }

    /// Waits for the release; false when the service ends first.
    bool hold() {
        std::unique_lock lock(mutex);
        const auto ticket = ++heldCount;
        changed.wait(lock, [&] { return ending || releasedCount >= ticket; });
        return !ending;
    }
};

FakeService::FakeService() : m_state(std::make_unique<State>()) { m_state->listen(); }

FakeService::~FakeService() {
    {
        std::unique_lock lock(m_state->mutex);
        m_state->ending = true;
        for (auto& peer : m_state->peers) peer->shutDown();
        m_state->changed.notify_all();
    }
    ::shutdown(m_state->listener, SHUT_RDWR);
    m_state->acceptor.join();
    for (auto& thread : m_state->threads) thread.join();
    close(m_state->listener);
}

int FakeService::port() const { return m_state->port; }

std::string FakeService::url(std::string_view host) const { return "http://" + std::string(host) + ":" + std::to_string(port()); }

void FakeService::script(std::string_view method, std::string_view prefix, std::vector<FakeAnswer> answers) {
    if (answers.empty()) throw std::invalid_argument("a script has at least one answer");
    route(method, prefix, [answers = std::move(answers), next = std::size_t(0)](const FakeRequest&) mutable {
        return answers[std::min(next++, answers.size() - 1)];
    });
}

void FakeService::route(std::string_view method, std::string_view prefix, Handler handler) {
    std::unique_lock lock(m_state->mutex);
    auto& routes = m_state->routes;
    routes.insert(routes.begin(), std::make_shared<Route>(Route{std::string(method), std::string(prefix), std::move(handler)}));
}

void FakeService::release(std::size_t count) {
    std::unique_lock lock(m_state->mutex);
    m_state->releasedCount += count;
    m_state->changed.notify_all();
}

std::vector<FakeRequest> FakeService::requests(std::string_view prefix) const {
    std::unique_lock lock(m_state->mutex);
    std::vector<FakeRequest> matching;
    std::copy_if(m_state->requests.begin(), m_state->requests.end(), std::back_inserter(matching),
                 [&](const auto& request) { return request.target.starts_with(prefix); });
    return matching;
}

std::size_t FakeService::requestCount(std::string_view prefix) const {
    std::unique_lock lock(m_state->mutex);
    const auto matches = [&](const auto& request) { return request.target.starts_with(prefix); };
    return static_cast<std::size_t>(std::count_if(m_state->requests.begin(), m_state->requests.end(), matches));
}

bool FakeService::awaitRequests(std::size_t count, std::string_view prefix) {
    auto& loop = NS::RunLoop::current();
    const auto setWaiter = [this](NS::RunLoop* waiter) {
        std::unique_lock lock(m_state->mutex);
        m_state->waiter = waiter;
    };
    setWaiter(&loop);
    const bool came = loop.runUntil([&] { return requestCount(prefix) >= count; }, patience);
    setWaiter(nullptr);
    return came;
}

}  // namespace velkor::test
