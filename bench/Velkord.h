#pragma once

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/TemporaryDirectory.h"

extern char** environ;

/// velkord, built beside this program, on a free port; without options on an embedded database in a directory of its own.
class Velkord {
public:
    explicit Velkord(std::vector<std::string> options = {}) {
        if (options.empty()) options = {"--data", m_directory.emplace().path()};
        std::string program = std::filesystem::read_symlink("/proc/self/exe").replace_filename("velkord");
        std::string listen = "--listen", address = "127.0.0.1:0";
        std::vector<char*> words{program.data(), listen.data(), address.data()};
        for (auto& option : options) words.push_back(option.data());
        words.push_back(nullptr);
        std::array<int, 2> output;
        if (pipe(output.data()) != 0) throw std::runtime_error("no pipe");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
        posix_spawn(&m_pid, program.c_str(), &actions, nullptr, words.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(output[1]);
        for (char c; read(output[0], &c, 1) == 1 && c != '\n';) m_url += c;
        close(output[0]);
        const auto place = m_url.find("http://");
        if (place == m_url.npos) throw std::runtime_error("velkord did not start");
        m_url.erase(0, place);
    }
    ~Velkord() {
        kill(m_pid, SIGTERM);
        waitpid(m_pid, nullptr, 0);
    }
    Velkord(const Velkord&) = delete;
    Velkord& operator=(const Velkord&) = delete;
    const std::string& url() const { return m_url; }

private:
    pid_t m_pid = -1;
    std::string m_url;
    std::optional<velkor::test::TemporaryDirectory> m_directory;
};
