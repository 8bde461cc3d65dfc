#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/base/Dictionary.h"

namespace velkor {

/// Where the sync state is kept: a property list file, or a user-defaults key when no path is given. Main thread.
class VLKStateStore {
public:
    /// What is kept there; empty when there is nothing yet, none when the file cannot be read as a dictionary.
    std::optional<NS::Dictionary> read(const std::optional<std::string>& path);
    /// Replaces it, atomically. A file that still holds exactly this is left alone. Returns whether it is kept.
    bool write(const NS::Dictionary& state, const std::optional<std::string>& path);

private:
    /// Tells whether a file is still the one that was written.
    struct FileMark {
        std::uint64_t device = 0, inode = 0, size = 0;
        std::int64_t seconds = 0, nanoseconds = 0;
        bool operator==(const FileMark&) const = default;
    };
    static std::optional<FileMark> markOf(const std::string& path);

    std::string m_writtenPath;
    std::optional<FileMark> m_writtenMark;
    NS::Dictionary m_written;
};

}  // namespace velkor
