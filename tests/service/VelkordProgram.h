// The real program on a real socket, and ways to talk to it.
#pragma once

#include <curl/curl.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>

#include "tests/service/ServiceFixture.h"

extern char** environ;

namespace velkor::service {

/// The program under test, which is built beside this one.
inline std::string velkord() { return std::filesystem::read_symlink("/proc/self/exe").replace_filename("velkord"); }

/// A running velkord on a free port.
class Program {
public:
    explicit Program(const TestDatabase& database, std::vector<std::string> options = {}) {
        std::vector<std::string> words{velkord(), "--listen", "127.0.0.1:0"};
        for (const auto& more : {database.options(), options}) words.insert(words.end(), more.begin(), more.end());
        std::array<int, 2> output;
        if (pipe(output.data()) != 0) throw std::runtime_error("no pipe");
        m_pid = spawn(words, output[1]);
        close(output[1]);
        std::string line;
        for (char c; read(output[0], &c, 1) == 1 && c != '\n';) line += c;
        close(output[0]);
        const std::string expected = "velkord: listening on http://127.0.0.1:";
        if (!line.starts_with(expected)) throw std::runtime_error("velkord did not start: " + line);
        m_port = std::stoi(line.substr(expected.size()));
    }
    ~Program() {
        if (m_pid > 0) end(SIGKILL);
    }

    static pid_t spawn(const std::vector<std::string>& words, int output) {
        std::vector<char*> arguments;
        for (const auto& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
        arguments.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        if (output >= 0) posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
        pid_t pid = -1;
        posix_spawn(&pid, arguments[0], &actions, nullptr, arguments.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        return pid;
    }
    /// The exit status of a whole run.
    static int run(const std::vector<std::string>& words) {
        int status = -1;
        waitpid(spawn(words, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    /// Sends the signal and waits for the end; the exit status, or -1 for a death by signal.
    int end(int signal) {
        kill(m_pid, signal);
        int status = -1;
        waitpid(m_pid, &status, 0);
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    int port() const { return m_port; }

    /// Requests over one kept connection; status 0 when the connection breaks.
    Exchange exchange() const {
        auto handle = std::shared_ptr<CURL>(curl_easy_init(), curl_easy_cleanup);
        return [handle, port = m_port](const std::string& method, const std::string& target, const std::string& authorization,
                                       const std::string& body) {
            CURL* curl = handle.get();
            curl_easy_reset(curl);
            Response response;
            response.body.clear();
            const std::string url = "http://127.0.0.1:" + std::to_string(port) + target;
            curl_slist* headers = curl_slist_append(nullptr, ("Authorization: " + authorization).c_str());
            curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
            curl_easy_setopt(curl, CURLOPT_PATH_AS_IS, 1L);
            curl_easy_setopt(curl, CURLOPT_PROXY, "");
            curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
            curl_easy_setopt(curl, CURLOPT_TIMEOUT, 120L);
            curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method.c_str());
            curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
            if (!body.empty()) {
                curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
                curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
            }
            curl_easy_setopt(curl, CURLOPT_WRITEDATA, &response.body);
            curl_easy_setopt(
                curl, CURLOPT_WRITEFUNCTION, +[](char* bytes, std::size_t size, std::size_t count, void* out) {
                    static_cast<std::string*>(out)->append(bytes, size * count);
                    return size * count;
                });
            long status = 0;
            if (curl_easy_perform(curl) == CURLE_OK) curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
            response.status = static_cast<int>(status);
            curl_slist_free_all(headers);
            return response;
        };
    }

private:
    pid_t m_pid = -1;
    int m_port = 0;
};

/// A socket to the program, for bytes that no HTTP library sends.
class RawConnection {
public:
    explicit RawConnection(int port) : m_socket(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    ~RawConnection() { close(m_socket); }
    void send(std::string_view bytes) {
        EXPECT_EQ(::send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    /// Everything until the text has come, or the connection ends.
    std::string readUntil(std::string_view text) {
        std::string got;
        char buffer[4096];
        for (ssize_t count; got.find(text) == got.npos && (count = recv(m_socket, buffer, sizeof buffer, 0)) > 0;) {
            got.append(buffer, static_cast<std::size_t>(count));
        }
        return got;
    }
    std::string readToEnd() { return readUntil(std::string_view("\0never\0", 7)); }

private:
    int m_socket;
};

}  // namespace velkor::service
