#include "examples/notes/DirectoryLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "examples/notes/Options.h"

namespace notes {

DirectoryLock::DirectoryLock(const std::filesystem::path& directory) {
    auto file = directory / ".lock";
    m_file = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (m_file < 0) throw CommandError("cannot use " + directory.string() + ": " + std::strerror(errno));
}

DirectoryLock::~DirectoryLock() { ::close(m_file); }

bool DirectoryLock::tryAcquire() {
    if (!m_held) m_held = ::flock(m_file, LOCK_EX | LOCK_NB) == 0;
    return m_held;
}

bool DirectoryLock::acquire(double seconds) {
    // The kernel offers no time-out for a file lock; asking again is cheap at this pace.
    auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!tryAcquire()) {
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

void DirectoryLock::release() {
    if (m_held) ::flock(m_file, LOCK_UN);
    m_held = false;
}

}  // namespace notes
