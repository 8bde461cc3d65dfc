// A file descriptor that closes itself, and errors that name the file. Internal.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string_view>
#include <utility>

#include "platform/base/Error.h"

namespace velkor::NS {

class FileDescriptor {
public:
    explicit FileDescriptor(int descriptor = -1) noexcept : m_descriptor(descriptor) {}
    FileDescriptor(FileDescriptor&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(m_descriptor, other.m_descriptor);
        return *this;
    }
    ~FileDescriptor() {
        if (m_descriptor >= 0) ::close(m_descriptor);
    }
    explicit operator bool() const noexcept { return m_descriptor >= 0; }
    int number() const noexcept { return m_descriptor; }

private:
    int m_descriptor;
};

/// "Could not write /some/file: No space left on device", with the system's error number (errno by default) as the code.
Error fileError(std::string_view verb, const std::filesystem::path& path, int number = errno);

}  // namespace velkor::NS
