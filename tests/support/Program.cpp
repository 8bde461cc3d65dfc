#include "tests/support/Program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>

namespace velkor::test {

namespace {

/// Tests and programs are built into one directory.
std::string programPath(const std::string& program) {
    if (program.find('/') != program.npos) return program;
    return std::filesystem::read_symlink("/proc/self/exe").replace_filename(program);
}

}  // namespace

Program::Program(const std::string& program, const std::vector<std::string>& arguments, const Environment& environment,
                 const std::string& input) {
    std::string path = programPath(program);
    std::vector<char*> argv{path.data()};
    std::vector<std::string> copies = arguments;
    for (auto& argument : copies) argv.push_back(argument.data());
    argv.push_back(nullptr);
    int out[2], err[2], in[2];
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0 || ::pipe2(in, O_CLOEXEC) != 0) std::abort();
    m_pid = ::fork();
    if (m_pid == 0) {
        ::dup2(in[0], STDIN_FILENO);
        ::dup2(out[1], STDOUT_FILENO);
        ::dup2(err[1], STDERR_FILENO);
        for (const auto& [name, value] : environment) ::setenv(name.c_str(), value.c_str(), 1);
        ::execv(path.c_str(), argv.data());
        ::_exit(127);
    }
    for (int end : {in[0], out[1], err[1]}) ::close(end);
    if (!input.empty() && ::write(in[1], input.data(), input.size()) < 0) ADD_FAILURE() << "cannot write the program's input";
    ::close(in[1]);
    m_out = out[0];
    m_err = err[0];
}

Program::~Program() {
    if (!m_reaped) {
        ::kill(m_pid, SIGKILL);
        reap();
    }
}

bool Program::readMore(int timeoutMilliseconds) {
    pollfd ends[] = {{m_out, POLLIN, 0}, {m_err, POLLIN, 0}};
    if (m_out < 0 && m_err < 0) return false;
    if (::poll(ends, 2, timeoutMilliseconds) < 0) return errno == EINTR;
    for (int i = 0; i < 2; ++i) {
        int& end = i == 0 ? m_out : m_err;
        if (end < 0 || ends[i].revents == 0) continue;
        char buffer[65536];
        ssize_t count = ::read(end, buffer, sizeof buffer);
        if (count > 0) {
            (i == 0 ? m_outcome.out : m_outcome.err).append(buffer, static_cast<std::size_t>(count));
        } else if (count == 0) {
            ::close(end);
            end = -1;
        }
    }
    return true;
}

std::optional<std::string> Program::lineBeforeEnd(const std::string& prefix) {
    for (;;) {
        for (std::size_t end; (end = m_outcome.out.find('\n', m_scanned)) != std::string::npos;) {
            std::string line = m_outcome.out.substr(m_scanned, end - m_scanned);
            m_scanned = end + 1;
            if (line.starts_with(prefix)) return line.substr(prefix.size());
        }
        if (!readMore(60'000)) return std::nullopt;
    }
}

std::string Program::waitForLine(const std::string& prefix) {
    auto line = lineBeforeEnd(prefix);
    if (!line) ADD_FAILURE() << "the program ended without the line '" << prefix << "': " << m_outcome.err;
    return line.value_or("");
}

void Program::signal(int number) {
    if (!m_reaped) ::kill(m_pid, number);
}

bool Program::isRunning() {
    if (m_reaped) return false;
    siginfo_t info{};
    return ::waitid(P_PID, static_cast<id_t>(m_pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0;
}

void Program::reap() {
    int status = 0;
    while (::waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
    }
    m_outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    m_reaped = true;
    for (int* end : {&m_out, &m_err}) {
        if (*end >= 0) ::close(*end);
        *end = -1;
    }
}

const Outcome& Program::wait() {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    while (!m_reaped && readMore(1000)) {
        if (std::chrono::steady_clock::now() < deadline) continue;
        ADD_FAILURE() << "a program did not end: " << m_outcome.err;
        ::kill(m_pid, SIGKILL);
        break;
    }
    if (!m_reaped) reap();
    return m_outcome;
}

Outcome run(const std::string& program, const std::vector<std::string>& arguments, const Environment& environment,
            const std::string& input) {
    return Program(program, arguments, environment, input).wait();
}

}  // namespace velkor::test
