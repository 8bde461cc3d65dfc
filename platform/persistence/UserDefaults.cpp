#include "platform/persistence/UserDefaults.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cstdlib>
#include <mutex>
#include <optional>

#include "platform/base/Exception.h"
#include "platform/base/Format.h"
#include "platform/base/SystemLog.h"
#include "platform/persistence/AtomicFile.h"
#include "platform/persistence/Bundle.h"
#include "platform/persistence/FileDescriptor.h"
#include "platform/persistence/PropertyList.h"

namespace velkor::NS {
namespace {

std::filesystem::path configurationDirectory() {
    // The variable counts only as an absolute path.
    if (const char* directory = std::getenv("XDG_CONFIG_HOME"); directory && directory[0] == '/') return directory;
    const char* home = std::getenv("HOME");
    return home && home[0] == '/' ? std::filesystem::path(home) / ".config" : std::filesystem::path();
}

std::filesystem::path defaultDirectory() {
    const auto identifier = Bundle::mainBundle().bundleIdentifier();
    const auto parent = configurationDirectory();
    const bool usable = identifier && !identifier->empty() && !parent.empty() && identifier->find('/') == std::string::npos;
    return usable ? parent / *identifier : std::filesystem::path();
}

bool isRegularFile(const std::filesystem::path& path) {
    std::error_code error;
    return std::filesystem::is_regular_file(path, error);
}

// Tells one written file from the next: each is a new file under the old name.
struct FileIdentity {
    ino_t file = 0;
    off_t size = -1;
    timespec changed{};

    static FileIdentity of(const std::filesystem::path& path) {
        struct stat status {};
        if (::stat(path.c_str(), &status) != 0) return {};
        return {status.st_ino, status.st_size, status.st_mtim};
    }
    bool operator==(const FileIdentity& other) const {
        return file == other.file && size == other.size && changed.tv_sec == other.changed.tv_sec &&
               changed.tv_nsec == other.changed.tv_nsec;
    }
};

}  // namespace

struct UserDefaults::State {
    std::mutex mutex;
    // All guarded by the mutex.
    bool loaded = false;
    std::filesystem::path directory;
    std::filesystem::path file;  // empty: in memory only
    Dictionary values;
    FileIdentity identity;

    void loadOnce() {
        if (std::exchange(loaded, true)) return;
        values.clear();
        identity = {};
        const auto place = directory.empty() ? defaultDirectory() : directory;
        file = place.empty() ? place : place / "defaults.plist";
        if (file.empty()) return;
        removeStaleTemporaryFiles(file);
        if (const auto result = takeInFile(); !result) systemLog(result.error().localizedDescription());
    }
    // Reads the file when somebody wrote it since the last time. A missing one is empty.
    Result<void> takeInFile() {
        const FileIdentity current = FileIdentity::of(file);
        if (current == identity && current.size >= 0) return {};
        auto contents = dictionaryWithContentsOfFile(file);
        if (!contents) {
            if (contents.error().code() != ENOENT) return contents.error();
            values.clear();
            return {};
        }
        values = contents.value();
        identity = current;
        return {};
    }
    // A file that cannot be understood is kept beside under another name; one that cannot be read stays where it is.
    Result<void> takeInFileOrSetItAside() {
        const auto taken = takeInFile();
        if (taken || !isRegularFile(file)) return taken;
        if (auto bytes = readFile(file); !bytes) return bytes.error();
        std::filesystem::path aside = file;
        aside += ".damaged";
        if (::rename(file.c_str(), aside.c_str()) != 0) return fileError("set aside", file);
        systemLog(format("The user defaults are damaged and were kept as %@: %@", aside.string(),
                         taken.error().localizedDescription()));
        return {};
    }
    Result<FileDescriptor> lockFile() const {
        std::error_code error;
        std::filesystem::create_directories(file.parent_path(), error);
        if (error) return fileError("make directory", file.parent_path(), error.value());
        std::filesystem::path path = file;
        path += ".lock";
        FileDescriptor descriptor(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
        if (!descriptor) return fileError("lock", path);
        while (::flock(descriptor.number(), LOCK_EX) != 0) {
            if (errno != EINTR) return fileError("lock", path);
        }
        return descriptor;
    }
    // Applies the change to the newest values and writes them.
    template <class Change>
    Result<void> change(Change&& change) {
        loadOnce();
        std::optional<FileDescriptor> lock;
        if (!file.empty()) {
            auto locked = lockFile();
            if (!locked) return locked.error();
            lock = std::move(locked).value();
            if (auto taken = takeInFileOrSetItAside(); !taken) return taken;
        }
        Dictionary changed = values;
        change(changed);
        auto text = propertyListXML(changed);
        if (!text) throw Exception(InvalidArgumentException, text.error().localizedDescription());
        if (!file.empty()) {
            if (auto written = writeFileAtomically(file, text.value()); !written) return written;
            identity = FileIdentity::of(file);
        }
        values = std::move(changed);
        return {};
    }
};

UserDefaults::UserDefaults() : m_state(new State) {}

UserDefaults& UserDefaults::standardUserDefaults() {
    static auto& defaults = *new UserDefaults;
    return defaults;
}

void UserDefaults::setDirectory(std::filesystem::path directory) {
    const std::lock_guard lock(m_state->mutex);
    m_state->directory = std::move(directory);
    m_state->loaded = false;
}

Value UserDefaults::objectForKey(std::string_view key) const {
    const std::lock_guard lock(m_state->mutex);
    m_state->loadOnce();
    return m_state->values[key];
}

Result<void> UserDefaults::setObject(Value value, std::string_view key) {
    const std::lock_guard lock(m_state->mutex);
    return m_state->change([&](Dictionary& values) { values.set(key, std::move(value)); });
}

Result<void> UserDefaults::removeObjectForKey(std::string_view key) {
    const std::lock_guard lock(m_state->mutex);
    return m_state->change([&](Dictionary& values) { values.remove(key); });
}

}  // namespace velkor::NS
