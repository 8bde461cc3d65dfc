#include "platform/base/SystemLog.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <string>

#include "platform/base/WriteAll.h"

namespace velkor::NS {
namespace {

struct SystemLog {
    std::mutex mutex;
    std::function<void(std::string_view)> handler;
};

SystemLog& sharedLog() {
    static auto& log = *new SystemLog;  // threads may write while the process exits
    return log;
}

// "2013-03-05 10:00:00.123 program[42] "
std::string linePrefix() {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm parts{};
    localtime_r(&seconds, &parts);
    char time[32];
    std::strftime(time, sizeof time, "%Y-%m-%d %H:%M:%S", &parts);
    char rest[16];
    std::snprintf(rest, sizeof rest, ".%03d ", static_cast<int>(milliseconds));
    return std::string(time) + rest + program_invocation_short_name + "[" + std::to_string(getpid()) + "] ";
}

}  // namespace

void systemLog(std::string_view text) {
    std::unique_lock lock(sharedLog().mutex);
    if (const auto handler = sharedLog().handler) {
        lock.unlock();  // a handler may log itself
        handler(text);
        return;
    }
    std::string line = linePrefix();
    for (const char c : text) {
        if (c == '\n') {
            line += "\\n";
        } else if (c == '\r') {
            line += "\\r";
        } else {
            line += c;
        }
    }
    line += '\n';
    writeAll(STDERR_FILENO, line);  // there is no place left to report a failure
}

void setSystemLogHandler(std::function<void(std::string_view text)> handler) {
    const std::lock_guard lock(sharedLog().mutex);
    sharedLog().handler = std::move(handler);
}

}  // namespace velkor::NS
