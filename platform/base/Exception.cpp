#include "platform/base/Exception.h"

#include <execinfo.h>

#include <cstdlib>
#include <memory>
#include <mutex>

#include "platform/base/SystemLog.h"

namespace velkor::NS {
namespace {

constexpr int deepestFrame = 64;

std::vector<std::string> currentCallStack() {
    void* frames[deepestFrame];
    const int count = backtrace(frames, deepestFrame);
    const std::unique_ptr<char*, decltype(&std::free)> symbols(backtrace_symbols(frames, count), &std::free);
    if (!symbols) return {};
    return {symbols.get(), symbols.get() + count};
}

struct AssertionHandler {
    std::mutex mutex;
    std::function<void(std::string_view)> handler;
};

AssertionHandler& assertionHandler() {
    static auto& handler = *new AssertionHandler;  // threads may assert while the process exits
    return handler;
}

}  // namespace

Exception::Exception(std::string_view name, std::string_view reason, Dictionary userInfo)
    : m_name(name), m_reason(reason), m_userInfo(std::move(userInfo)), m_callStackSymbols(currentCallStack()) {}

AssertionFailure::AssertionFailure(std::string_view text) : Exception(InternalInconsistencyException, text) {}

void failAssertion(std::string_view text) {
    systemLog(text);
    std::function<void(std::string_view)> handler;
    {
        const std::lock_guard lock(assertionHandler().mutex);
        handler = assertionHandler().handler;
    }
    if (handler) handler(text);
    throw AssertionFailure(text);
}

void setAssertionHandler(std::function<void(std::string_view text)> handler) {
    const std::lock_guard lock(assertionHandler().mutex);
    assertionHandler().handler = std::move(handler);
}

}  // namespace velkor::NS
