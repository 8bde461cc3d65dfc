#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace velkor::test {

/// Takes the system log's entries while it lives, at a log level of the library. One at a time.
class LogCapture {
public:
    explicit LogCapture(int level = 100);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::string> entries() const;
    bool contains(const std::string& entry) const;
    void clear();

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_entries;
    int m_previousLevel;
};

/// Entries that an action writes, in this order, when the log level is `level` or higher, and not below it.
struct LogCase {
    /// Level of what goes straight to the system log.
    static constexpr int always = -1000;
    std::string name;
    int level;
    std::function<void()> action;  // run twice; exceptions of the library's kind are part of it
    std::vector<std::string> entries;
};
void checkLogCases(const std::vector<LogCase>& cases);

}  // namespace velkor::test
