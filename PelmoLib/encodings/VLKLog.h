#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>

#include "platform/base/Export.h"
#include "platform/base/Format.h"
#include "platform/base/SystemLog.h"

namespace velkor {

/// The one logger of the library. Levels in use: 100 errors and warnings, 200 progress of a cycle, 300 detail, 400 full dumps of
/// requests, answers and guid lists. Messages go to the system log, one entry each. Any thread.
class VELKOR_EXPORT VLKLog {
public:
    /// Created on first use; lives until the process ends.
    static VLKLog& sharedInstance();

    /// Writes the text when `logLevel()` is `level` or higher; otherwise the arguments are not even described.
    template <class... Args>
    void logMessageAtLevel(std::int32_t level, std::string_view format, const Args&... args) {
        if (isLoggingEnabledOfType(level)) NS::systemLog(NS::format(format, args...));
    }
    /// Whether a message of this level is written; to be asked before an expensive dump is built.
    bool isLoggingEnabledOfType(std::int32_t level) const noexcept { return logLevel() >= level; }

    /// The most detailed level that is written: 100 unless set; 0 or less silences the library.
    std::int32_t logLevel() const noexcept { return m_logLevel.load(std::memory_order_relaxed); }
    void setLogLevel(std::int32_t level) noexcept { m_logLevel.store(level, std::memory_order_relaxed); }

private:
    VLKLog() = default;
    std::atomic<std::int32_t> m_logLevel = 100;
};

}  // namespace velkor
