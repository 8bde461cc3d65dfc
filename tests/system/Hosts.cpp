#include "tests/system/Hosts.h"

#include <gtest/gtest.h>
#include <signal.h>

namespace velkor::test {

Service::Service(std::filesystem::path directory, const Environment& environment, std::vector<std::string> options)
    : m_directory(std::move(directory)), m_options(std::move(options)) {
    startProgram(environment);
}

void Service::startProgram(const Environment& environment) {
    std::vector<std::string> arguments{"--data", m_directory.string(), "--listen", m_listen};
    arguments.insert(arguments.end(), m_options.begin(), m_options.end());
    m_program = std::make_unique<Program>("velkord", arguments, environment);
    const bool mayDie = environment.contains("VELKOR_DIE_AT_STEP");
    const std::string prefix = "velkord: listening on ";
    m_url = mayDie ? m_program->lineBeforeEnd(prefix).value_or("") : m_program->waitForLine(prefix);
    if (m_url.size() > 7) m_listen = m_url.substr(7);
}

void Service::restart(const Environment& environment) {
    m_program->signal(SIGTERM);
    m_program->wait();
    startProgram(environment);
}

std::vector<std::string> Host::commandLine(const std::vector<std::string>& arguments) const {
    std::vector<std::string> line{"--data", m_directory.string(), "--server", m_url};
    line.insert(line.end(), arguments.begin(), arguments.end());
    return line;
}

Outcome Host::run(const std::vector<std::string>& arguments, const Environment& environment) const {
    return test::run("velkor-notes", commandLine(arguments), environment);
}

std::unique_ptr<Program> Host::start(const std::vector<std::string>& arguments, const Environment& environment) const {
    return std::make_unique<Program>("velkor-notes", commandLine(arguments), environment);
}

std::string Host::must(const std::vector<std::string>& arguments) const {
    Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, 0) << arguments.front() << ": " << outcome.err;
    if (!outcome.out.empty() && outcome.out.back() == '\n') outcome.out.pop_back();
    return outcome.out;
}

void syncToRest(const std::vector<const Host*>& hosts) {
    for (int round = 0; round < 8; ++round) {
        bool moved = false;
        for (const Host* host : hosts) {
            moved |= host->must({"--json", "sync"}).find(R"("sent":0,"received":0)") == std::string::npos;
            if (testing::Test::HasFailure()) return;
        }
        if (!moved) return;
    }
    ADD_FAILURE() << "the hosts did not come to rest";
}

void expectEqual(const Host& a, const Host& b) {
    EXPECT_EQ(a.must({"dump"}), b.must({"dump"}));
    EXPECT_EQ(a.must({"hash"}), b.must({"hash"}));
}

}  // namespace velkor::test
