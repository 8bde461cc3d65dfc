// The real programs as a test drives them: one service and any number of hosts, each with a directory of its own.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/Program.h"
#include "tests/support/TemporaryDirectory.h"

namespace velkor::test {

class Service {
public:
    explicit Service(std::filesystem::path directory, const Environment& environment = {}, std::vector<std::string> options = {});
    /// The base URL. The port stays the same over restarts.
    const std::string& url() const noexcept { return m_url; }
    void restart(const Environment& environment = {});
    /// Whether it died at the durable step that its environment named.
    bool isRunning() { return m_program->isRunning(); }
    Program& program() { return *m_program; }

private:
    void startProgram(const Environment& environment);
    std::filesystem::path m_directory;
    std::vector<std::string> m_options;
    std::string m_listen = "127.0.0.1:0";
    std::string m_url;
    std::unique_ptr<Program> m_program;
};

class Host {
public:
    Host(std::filesystem::path directory, std::string url) : m_directory(std::move(directory)), m_url(std::move(url)) {}

    /// Runs velkor-notes with the arguments.
    Outcome run(const std::vector<std::string>& arguments, const Environment& environment = {}) const;
    /// The same; a status other than 0 fails the test. Returns standard output without its last line break.
    std::string must(const std::vector<std::string>& arguments) const;
    std::unique_ptr<Program> start(const std::vector<std::string>& arguments, const Environment& environment = {}) const;
    const std::filesystem::path& directory() const noexcept { return m_directory; }

private:
    std::vector<std::string> commandLine(const std::vector<std::string>& arguments) const;
    std::filesystem::path m_directory;
    std::string m_url;
};

/// Syncs the hosts in turn until a whole round moves nothing; fails the test when that takes more than eight rounds.
void syncToRest(const std::vector<const Host*>& hosts);
/// Fails the test unless dump and hash are the same on both.
void expectEqual(const Host& a, const Host& b);

}  // namespace velkor::test
