#pragma once

#include <filesystem>
#include <memory>
#include <string_view>

#include "platform/base/Export.h"
#include "platform/base/Result.h"
#include "platform/base/Value.h"

namespace velkor::NS {

/// The user's defaults of this host: one XML property list, `$XDG_CONFIG_HOME/<bundle identifier>/defaults.plist`, or
/// `defaults.plist` in a directory that the host names. Reading loads the file once, and tries again as long as it cannot be
/// read; each change writes it atomically under a file lock, for which it waits, after taking in what other processes wrote. A
/// change keeps a file that is no property list beside as `defaults.plist.damaged` (or .damaged2, ...) and fails with one that
/// cannot be read. Without a bundle identifier and a directory the defaults live in memory only. Any thread.
class VELKOR_EXPORT UserDefaults {
public:
    static UserDefaults& standardUserDefaults();

    /// Before the first use; empty: the default place.
    void setDirectory(std::filesystem::path directory);
    /// nil when there is none; also, with a line in the system log the first time, when the file cannot be read.
    Value objectForKey(std::string_view key) const;
    /// The same, for those who must tell the two apart.
    Result<Value> readObjectForKey(std::string_view key) const;
    /// A value that no property list can hold raises the invalid-argument exception.
    Result<void> setObject(Value value, std::string_view key);
    Result<void> removeObjectForKey(std::string_view key);

private:
    UserDefaults();
    struct State;
    State* m_state;
};

}  // namespace velkor::NS
