#pragma once

#include <unistd.h>

#include <cerrno>
#include <string_view>

namespace velkor::NS {

/// Writes all the bytes, in as many steps as it takes; false, with errno, when it cannot.
inline bool writeAll(int descriptor, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written == 0) errno = EIO;
        if (written <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

}  // namespace velkor::NS
