#pragma once

#include <VelkorSync/Dictionary.h>
#include <VelkorSync/Observable.h>
#include <VelkorSync/VLKSyncController.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace notes {

/// The user's preferences: texts at fixed key paths, outside the store, kept in preferences.json. Main thread only.
class Preferences {
public:
    Preferences(std::filesystem::path file, velkor::VLKSyncController& controller);

    /// Raises UsageError for a key path that no preference has.
    static void requireKeyPath(std::string_view keyPath);

    /// Reads the file, which may be missing, while nobody observes. False when it is damaged: then no preference is set. Raises
    /// CommandError when it cannot be read.
    bool load();
    /// Writes the file. Raises CommandError.
    void write() const;
    /// Lets the controller observe the values from now on. Its user is known already: the identity of a value names the user.
    void observe();
    /// Ends that, before the user changes.
    void disregard();

    /// None when it is not set.
    std::optional<std::string> value(std::string_view keyPath) const;
    /// Sets the value, or removes it (none). It is kept together with the controller's pending changes: both or neither, whenever
    /// the process dies. Raises CommandError.
    void change(std::string_view keyPath, const std::optional<std::string>& value);
    /// A process died before it had brought its change to an end.
    bool changeWaits() const;
    void finishChange();

private:
    std::filesystem::path m_file;
    std::filesystem::path m_changedFile;
    velkor::VLKSyncController& m_controller;
    velkor::NS::Dictionary m_members;  // what the file holds: texts by key path
    std::shared_ptr<velkor::NS::Observable> m_values;
    bool m_observed = false;
};

}  // namespace notes
