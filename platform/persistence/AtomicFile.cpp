#include "platform/persistence/AtomicFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <random>

#include "platform/base/DurableStep.h"
#include "platform/base/Format.h"
#include "platform/base/WriteAll.h"
#include "platform/persistence/FileDescriptor.h"

namespace velkor::NS {
namespace {

using std::filesystem::path;

// Temporary files of FILE are named ".FILE.RANDOM.tmp". While one is being written its writer holds a lock on it, so one without
// a lock is a dead writer's.
std::string temporaryPrefix(const path& file) { return "." + file.filename().string() + "."; }
constexpr std::string_view temporarySuffix = ".tmp";

path directoryOf(const path& file) { return file.has_parent_path() ? file.parent_path() : path("."); }

struct TemporaryFile {
    path name;
    FileDescriptor descriptor;
};

Result<TemporaryFile> makeTemporaryFile(const path& file) {
    std::random_device random;
    for (int attempt = 0; attempt < 100; ++attempt) {
        const path name = directoryOf(file) / (temporaryPrefix(file) + std::to_string(random()) + std::string(temporarySuffix));
        FileDescriptor descriptor(::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        if (!descriptor) {
            if (errno == EEXIST) continue;
            return fileError("write", file);
        }
        // Somebody who cleans up may have been quicker with the lock: then the file is gone, and another is made.
        struct stat status {};
        if (::flock(descriptor.number(), LOCK_EX) == 0 && ::fstat(descriptor.number(), &status) == 0 && status.st_nlink == 0)
            continue;
        return TemporaryFile{name, std::move(descriptor)};
    }
    return fileError("write", file, EEXIST);
}

bool syncDirectory(const path& directory) {
    const FileDescriptor descriptor(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // Some file systems cannot synchronise a directory; there the rename is as durable as it gets.
    return descriptor && (::fsync(descriptor.number()) == 0 || errno == EINVAL || errno == ENOTSUP);
}

}  // namespace

Error fileError(std::string_view verb, const path& path, int number) {
    return Error::withDescription(PlatformErrorDomain, number,
                                  format("Could not %@ %@: %@", verb, path.string(), std::strerror(number)));
}

Result<void> writeFileAtomically(const path& file, std::string_view bytes) {
    auto made = makeTemporaryFile(file);
    if (!made) return made.error();
    const TemporaryFile& temporary = made.value();
    const auto failure = [&] {
        const Error error = fileError("write", file);
        ::unlink(temporary.name.c_str());
        return error;
    };
    durableStep("write");
    if (!writeAll(temporary.descriptor.number(), bytes)) return failure();
    durableStep("fsync");
    if (::fsync(temporary.descriptor.number()) != 0) return failure();
    durableStep("rename");
    if (::rename(temporary.name.c_str(), file.c_str()) != 0) return failure();
    durableStep("fsync directory");
    if (!syncDirectory(directoryOf(file))) return fileError("make durable", file);
    return {};
}

Result<Data> readFile(const path& file, std::uint64_t limit) {
    const FileDescriptor descriptor(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status {};
    if (!descriptor || ::fstat(descriptor.number(), &status) != 0) return fileError("read", file);
    if (S_ISDIR(status.st_mode)) return fileError("read", file, EISDIR);
    std::string bytes;
    std::size_t expected = static_cast<std::size_t>(status.st_size);
    for (;;) {
        if (bytes.size() > limit || expected > limit) return fileError("read", file, EFBIG);
        const std::size_t filled = bytes.size();
        bytes.resize(std::max(expected, filled) + 1);  // one more than expected tells the end
        const ssize_t count = ::read(descriptor.number(), bytes.data() + filled, bytes.size() - filled);
        if (count < 0 && errno != EINTR) return fileError("read", file);
        bytes.resize(filled + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        if (count == 0) return Data(std::move(bytes));
        if (bytes.size() > expected) expected = bytes.size() * 2;
    }
}

void removeStaleTemporaryFiles(const path& file) {
    const std::string prefix = temporaryPrefix(file);
    std::error_code error;
    for (std::filesystem::directory_iterator entry(directoryOf(file), error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (name.size() <= prefix.size() + temporarySuffix.size() || !name.starts_with(prefix) ||
            !name.ends_with(temporarySuffix))
            continue;
        const std::size_t digits = name.size() - prefix.size() - temporarySuffix.size();
        if (name.find_first_not_of("0123456789", prefix.size()) != prefix.size() + digits) continue;  // another file's
        const FileDescriptor descriptor(::open(entry->path().c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
        if (descriptor && ::flock(descriptor.number(), LOCK_EX | LOCK_NB) == 0) ::unlink(entry->path().c_str());
    }
}

}  // namespace velkor::NS
