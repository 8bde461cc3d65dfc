#pragma once

#include <functional>
#include <string_view>

#include "platform/base/Export.h"

namespace velkor::NS {

/// Writes one entry to the system log: standard error, one line with the time in milliseconds, the program, the process id and
/// the text. Any thread; entries of different threads never mix within a line.
VELKOR_EXPORT void systemLog(std::string_view text);
/// Sends the entries' texts to a host's own log instead; an empty handler restores standard error. The handler runs on the thread
/// that logs, on several at once, and may log and ask for defaults itself.
VELKOR_EXPORT void setSystemLogHandler(std::function<void(std::string_view text)> handler);

}  // namespace velkor::NS
