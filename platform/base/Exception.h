#pragma once

#include <exception>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/Dictionary.h"
#include "platform/base/Export.h"

namespace velkor::NS {

inline constexpr std::string_view InvalidArgumentException = "NSInvalidArgumentException";
inline constexpr std::string_view RangeException = "NSRangeException";
inline constexpr std::string_view InternalInconsistencyException = "NSInternalInconsistencyException";

/// A misuse that the system answers by raising: a name, a reason and a user info.
class VELKOR_EXPORT Exception : public std::exception {
public:
    Exception(std::string_view name, std::string_view reason, Dictionary userInfo = {});
    const std::string& name() const noexcept { return m_name; }
    const std::string& reason() const noexcept { return m_reason; }
    const Dictionary& userInfo() const noexcept { return m_userInfo; }
    /// The call stack where it was raised, a frame a text, as far as the machine tells.
    const std::vector<std::string>& callStackSymbols() const noexcept { return m_callStackSymbols; }
    const char* what() const noexcept override { return m_reason.c_str(); }

private:
    std::string m_name;
    std::string m_reason;
    Dictionary m_userInfo;
    std::vector<std::string> m_callStackSymbols;
};

/// Raised by a failed assertion, after its text went to the system log; uncaught it ends the process.
class VELKOR_EXPORT AssertionFailure : public Exception {
public:
    explicit AssertionFailure(std::string_view text);
};

/// Writes the text to the system log, calls the assertion handler and raises AssertionFailure.
VELKOR_EXPORT [[noreturn]] void failAssertion(std::string_view text);
/// Fails the assertion with the text unless the condition holds.
inline void assertThat(bool condition, std::string_view text) {
    if (!condition) failAssertion(text);
}
/// A host's extra work at a failed assertion (a crash report); none by default. Called on the failing thread.
VELKOR_EXPORT void setAssertionHandler(std::function<void(std::string_view text)> handler);

}  // namespace velkor::NS
