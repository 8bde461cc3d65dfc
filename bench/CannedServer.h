// A server for benchmarks that costs next to nothing: it reads requests to their end, drops their bodies and sends ready answers.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

/// A socket that listens on a free loopback port, and where.
inline int listenOnLoopback(sockaddr_in& address) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(listener, reinterpret_cast<sockaddr*>(&address), length);
    listen(listener, 16);
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    return listener;
}

/// Listens on a free loopback port until the process ends, with a thread a connection.
class CannedServer {
public:
    /// Finds the whole answer for a request, given its head; called on the connections' threads. The bytes stay with the
    /// answerer.
    using Answerer = std::function<std::string_view(std::string_view head)>;

    explicit CannedServer(Answerer answerer) : m_answerer(std::move(answerer)) {
        sockaddr_in address;
        m_listener = listenOnLoopback(address);
        url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/";
        std::thread([this] {
            for (int peer; (peer = accept(m_listener, nullptr, nullptr)) >= 0;)
                std::thread([this, peer] { serve(peer); }).detach();
        }).detach();
    }

    static std::string answerWith(std::string_view body) {
        return "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
               "\r\n\r\n" + std::string(body);
    }

    std::string url;

private:
    void serve(int peer) const {
        const int on = 1;
        setsockopt(peer, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        std::vector<char> buffer(1 << 18);
        for (std::string head;;) {
            ssize_t got;
            while (head.find("\r\n\r\n") == std::string::npos) {
                if ((got = recv(peer, buffer.data(), buffer.size(), 0)) <= 0) return void(close(peer));
                head.append(buffer.data(), static_cast<std::size_t>(got));
            }
            const auto end = head.find("\r\n\r\n") + 4;
            const auto field = head.find("Content-Length: ");
            std::size_t left = field < end ? std::stoul(head.substr(field + 16)) : 0;
            left -= std::min(left, head.size() - end);
            for (; left > 0; left -= static_cast<std::size_t>(got)) {
                if ((got = recv(peer, buffer.data(), buffer.size(), 0)) <= 0) return void(close(peer));
            }
            const std::string_view answer = m_answerer(std::string_view(head).substr(0, end));
            head.clear();
            for (std::size_t sent = 0; sent < answer.size(); sent += static_cast<std::size_t>(got)) {
                if ((got = send(peer, answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL)) <= 0) return void(close(peer));
            }
        }
    }

    const Answerer m_answerer;
    int m_listener;
};
