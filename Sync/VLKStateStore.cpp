#include "Sync/VLKStateStore.h"

#include <sys/stat.h>

#include <cerrno>

#include "platform/persistence/AtomicFile.h"
#include "platform/persistence/PropertyList.h"
#include "platform/persistence/UserDefaults.h"

namespace velkor {

namespace {

constexpr std::string_view defaultsKey = "VELKOR_SYNC_STATE";

/// A file that merely cannot be reached is none to write another over.
bool isAbsent(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) != 0 && (errno == ENOENT || errno == ENOTDIR);
}

}  // namespace

std::optional<NS::Dictionary> VLKStateStore::read(const std::optional<std::string>& path) {
    if (!path) {
        const auto kept = NS::UserDefaults::standardUserDefaults().readObjectForKey(defaultsKey);
        if (!kept) return std::nullopt;
        const NS::Dictionary* state = kept.value().asDictionary();
        return state ? *state : NS::Dictionary();
    }
    m_writtenMark.reset();
    NS::removeStaleTemporaryFiles(*path);
    if (isAbsent(*path)) return NS::Dictionary();
    auto state = NS::dictionaryWithContentsOfFile(*path);
    if (!state) return std::nullopt;
    return std::move(state).value();
}

bool VLKStateStore::write(const NS::Dictionary& state, const std::optional<std::string>& path) {
    if (!path) return NS::UserDefaults::standardUserDefaults().setObject(state, defaultsKey).ok();
    if (m_writtenMark && m_writtenPath == *path && m_written == state && markOf(*path) == m_writtenMark) return true;
    m_writtenMark.reset();
    if (!NS::writeDictionaryToFile(state, *path)) return false;
    m_writtenPath = *path;
    m_writtenMark = markOf(*path);
    m_written = state;
    return true;
}

std::optional<VLKStateStore::FileMark> VLKStateStore::markOf(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return std::nullopt;
    return FileMark{info.st_dev, info.st_ino, static_cast<std::uint64_t>(info.st_size), info.st_mtim.tv_sec,
                    info.st_mtim.tv_nsec};
}

}  // namespace velkor
