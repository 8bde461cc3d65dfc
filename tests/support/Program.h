#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace velkor::test {

/// How a program ended and what it said.
struct Outcome {
    int status = -1;  // exit status; 128 + signal when a signal ended it
    std::string out;
    std::string err;
};

using Environment = std::map<std::string, std::string>;

/// A child process of the test with its output kept in memory. Killed and reaped when the object goes.
class Program {
public:
    /// Starts the program (a path, or a name in the build's bin directory) with extra environment variables.
    Program(const std::string& program, const std::vector<std::string>& arguments, const Environment& environment = {},
            const std::string& input = {});
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    /// Waits for the next line of standard output that starts with the prefix and returns the rest of it; fails the test and
    /// returns an empty text when the program ends first.
    std::string waitForLine(const std::string& prefix);
    /// The same for a program that may rightly end first: then nothing.
    std::optional<std::string> lineBeforeEnd(const std::string& prefix);
    void signal(int number);
    bool isRunning();
    /// Waits for the end; at most 120 s, then it is killed and the test fails.
    const Outcome& wait();
    pid_t pid() const noexcept { return m_pid; }

private:
    bool readMore(int timeoutMilliseconds);
    void reap();

    pid_t m_pid = -1;
    int m_out = -1, m_err = -1;
    bool m_reaped = false;
    std::size_t m_scanned = 0;
    Outcome m_outcome;
};

/// Runs the program to its end.
Outcome run(const std::string& program, const std::vector<std::string>& arguments, const Environment& environment = {},
            const std::string& input = {});

}  // namespace velkor::test
