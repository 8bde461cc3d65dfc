#pragma once

#include <filesystem>

namespace notes {

/// Keeps a second process out of the installation's directory.
class DirectoryLock {
public:
    explicit DirectoryLock(const std::filesystem::path& directory);
    ~DirectoryLock();
    DirectoryLock(const DirectoryLock&) = delete;
    DirectoryLock& operator=(const DirectoryLock&) = delete;

    /// Takes the directory without waiting; false when another process has it. Harmless when it is already ours.
    bool tryAcquire();
    /// Waits up to `seconds`; false when another process still has it then.
    bool acquire(double seconds);
    void release();
    bool isHeld() const noexcept { return m_held; }

private:
    int m_file = -1;
    bool m_held = false;
};

}  // namespace notes
