#pragma once

#include <filesystem>
#include <string_view>

#include "platform/base/Data.h"
#include "platform/base/Export.h"
#include "platform/base/Result.h"

namespace velkor::NS {

/// Replaces the file's content: a temporary file in the same directory (mode 0600), write, fsync, rename, fsync of the directory.
/// Whatever happens, the path holds the old content or the new one whole; an error to make it durable comes when the new one is
/// in place. Errors here are of PlatformErrorDomain, with errno as the code.
VELKOR_EXPORT Result<void> writeFileAtomically(const std::filesystem::path& path, std::string_view bytes);
/// The file's content; files above `limit` bytes are an error.
VELKOR_EXPORT Result<Data> readFile(const std::filesystem::path& path, std::uint64_t limit = 1ull << 32);
/// Removes the temporary files that a process which died while writing `path` left behind.
VELKOR_EXPORT void removeStaleTemporaryFiles(const std::filesystem::path& path);

}  // namespace velkor::NS
