#pragma once

#include <filesystem>
#include <memory>
#include <string_view>

#include "platform/base/Export.h"
#include "platform/base/Result.h"
#include "platform/base/Value.h"

namespace velkor::NS {

/// The user's defaults of this host: one XML property list, `$XDG_CONFIG_HOME/<bundle identifier>/defaults.plist`, or
/// `defaults.plist` in a directory that the host names. Reading loads the file once; each change writes it atomically under a
/// file lock, after taking in what other processes wrote. Without a bundle identifier and a directory the defaults live in memory
/// only. Any thread.
class VELKOR_EXPORT UserDefaults {
public:
    static UserDefaults& standardUserDefaults();

    /// Before the first use; empty: the default place.
    void setDirectory(std::filesystem::path directory);
    Value objectForKey(std::string_view key) const;
    /// A value that no property list can hold raises the invalid-argument exception.
    Result<void> setObject(Value value, std::string_view key);
    Result<void> removeObjectForKey(std::string_view key);

private:
    UserDefaults();
    struct State;
    State* m_state;
};

}  // namespace velkor::NS
