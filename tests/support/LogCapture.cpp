#include "tests/support/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "PelmoLib/encodings/VLKLog.h"
#include "platform/base/Exception.h"
#include "platform/base/SystemLog.h"

namespace velkor::test {

LogCapture::LogCapture(int level) : m_previousLevel(VLKLog::sharedInstance().logLevel()) {
    VLKLog::sharedInstance().setLogLevel(level);
    NS::setSystemLogHandler([this](std::string_view text) {
        std::lock_guard lock(m_mutex);
        m_entries.emplace_back(text);
    });
}

LogCapture::~LogCapture() {
    NS::setSystemLogHandler({});
    VLKLog::sharedInstance().setLogLevel(m_previousLevel);
}

std::vector<std::string> LogCapture::entries() const {
    std::lock_guard lock(m_mutex);
    return m_entries;
}

bool LogCapture::contains(const std::string& entry) const {
    const auto all = entries();
    return std::find(all.begin(), all.end(), entry) != all.end();
}

void LogCapture::clear() {
    std::lock_guard lock(m_mutex);
    m_entries.clear();
}

namespace {

std::vector<std::string> entriesAtLevel(int level, const std::function<void()>& action) {
    LogCapture log(level);
    try {
        action();
    } catch (const NS::Exception&) {
    }
    return log.entries();
}

}  // namespace

void checkLogCases(const std::vector<LogCase>& cases) {
    for (const LogCase& expected : cases) {
        SCOPED_TRACE(expected.name);
        const auto written = entriesAtLevel(std::max(expected.level, 0), expected.action);
        auto place = written.begin();
        for (const std::string& entry : expected.entries) {
            place = std::find(place, written.end(), entry);
            EXPECT_NE(place, written.end()) << "missing, or out of order: " << entry << "\nin "
                                            << testing::PrintToString(written);
            if (place == written.end()) break;
            ++place;
        }
        const auto below =
            expected.level == LogCase::always ? std::vector<std::string>() : entriesAtLevel(expected.level - 1, expected.action);
        for (const std::string& entry : expected.entries) {
            EXPECT_THAT(below, testing::Not(testing::Contains(entry))) << "written below its level";
        }
    }
}

}  // namespace velkor::test
