#include "platform/persistence/UserDefaults.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cstdlib>
#include <mutex>
#include <optional>
#include <string>

#include "platform/base/Exception.h"
#include "platform/base/FirstException.h"
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

constexpr std::string_view fileName = "defaults.plist";

std::filesystem::path freeNameBeside(const std::filesystem::path& file) {
    for (int number = 1;; ++number) {
        std::filesystem::path name = file;
        name += number == 1 ? ".damaged" : ".damaged" + std::to_string(number);
        std::error_code error;
        if (!std::filesystem::exists(std::filesystem::symlink_status(name, error))) return name;
    }
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
    void setDirectory(const std::filesystem::path& directory) {
        const std::lock_guard lock(mutex);
        file.reset();
        if (!directory.empty()) setFile(directory / fileName);
    }
    Result<Value> read(std::string_view key) {
        const auto lock = lockWithFile();
        if (!loaded) {
            if (auto taken = takeInFile(); !taken) return taken.error();
        }
        return values[key];
    }
    // Of a row of failures to read only one is worth a line; a log handler that asks for defaults would never end.
    bool isFirstFailure() {
        const std::lock_guard lock(mutex);
        return !std::exchange(failureTold, true);
    }
    // Applies the change to the newest values and writes them.
    template <class Change>
    Result<void> change(Change&& change) {
        std::string notice;
        Result<void> result;
        FirstException raised;
        raised.attempt([&] {
            const auto lock = lockWithFile();
            result = changeFile(change, notice);
        });
        if (!notice.empty()) systemLog(notice);  // a log handler may ask for defaults, so not under the mutex
        raised.raise();
        return result;
    }

private:
    void setFile(std::filesystem::path path) {
        file = std::move(path);
        loaded = failureTold = false;
        values.clear();
        identity = {};
        if (!file->empty()) removeStaleTemporaryFiles(*file);
    }
    std::unique_lock<std::mutex> lockWithFile() {
        std::unique_lock lock(mutex);
        if (file) return lock;
        lock.unlock();
        const auto directory = defaultDirectory();  // may write to the log
        lock.lock();
        if (!file) setFile(directory.empty() ? directory : directory / fileName);
        return lock;
    }
    // Reads the file when somebody wrote it since the last time. A missing one is empty.
    Result<void> takeInFile() {
        const FileIdentity current = file->empty() ? FileIdentity() : FileIdentity::of(*file);
        if (!file->empty() && (current.size < 0 || !(current == identity))) {
            auto contents = dictionaryWithContentsOfFile(*file);
            if (!contents && contents.error().code() != ENOENT) return contents.error();
            values = contents ? std::move(contents).value() : Dictionary();
            identity = contents ? current : FileIdentity();
        }
        loaded = true;
        failureTold = false;
        return {};
    }
    // A file that cannot be understood is kept beside under another name; one that cannot be read stays where it is.
    Result<void> takeInFileOrSetItAside(std::string& notice) {
        const auto taken = takeInFile();
        if (taken || !isRegularFile(*file)) return taken;
        if (auto bytes = readFile(*file); !bytes) return bytes.error();
        const std::filesystem::path aside = freeNameBeside(*file);
        if (::rename(file->c_str(), aside.c_str()) != 0) return fileError("set aside", *file);
        notice =
            format("The user defaults are damaged and were kept as %@: %@", aside.string(), taken.error().localizedDescription());
        return {};
    }
    Result<FileDescriptor> lockFile() const {
        std::error_code error;
        std::filesystem::create_directories(file->parent_path(), error);
        if (error) return fileError("make directory", file->parent_path(), error.value());
        std::filesystem::path path = *file;
        path += ".lock";
        FileDescriptor descriptor(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
        if (!descriptor) return fileError("lock", path);
        while (::flock(descriptor.number(), LOCK_EX) != 0) {
            if (errno != EINTR) return fileError("lock", path);
        }
        return descriptor;
    }
    template <class Change>
    Result<void> changeFile(Change&& change, std::string& notice) {
        std::optional<FileDescriptor> lock;
        if (!file->empty()) {
            auto locked = lockFile();
            if (!locked) return locked.error();
            lock = std::move(locked).value();
            if (auto taken = takeInFileOrSetItAside(notice); !taken) return taken;
        }
        Dictionary changed = values;
        change(changed);
        auto text = propertyListXML(changed);
        if (!text) throw Exception(InvalidArgumentException, text.error().localizedDescription());
        if (!file->empty()) {
            if (auto written = writeFileAtomically(*file, text.value()); !written) return written;
            identity = FileIdentity::of(*file);
        }
        values = std::move(changed);
        return {};
    }

    std::mutex mutex;
    // All guarded by the mutex.
    std::optional<std::filesystem::path> file;  // none until it is found; empty: in memory only
    bool loaded = false;
    bool failureTold = false;
    Dictionary values;
    FileIdentity identity;
};

UserDefaults::UserDefaults() : m_state(new State) {}

UserDefaults& UserDefaults::standardUserDefaults() {
    static auto& defaults = *new UserDefaults;
    return defaults;
}

void UserDefaults::setDirectory(std::filesystem::path directory) { m_state->setDirectory(directory); }

Value UserDefaults::objectForKey(std::string_view key) const {
    auto value = readObjectForKey(key);
    if (value) return std::move(value).value();
    if (m_state->isFirstFailure()) systemLog(value.error().localizedDescription());
    return {};
}

Result<Value> UserDefaults::readObjectForKey(std::string_view key) const { return m_state->read(key); }

Result<void> UserDefaults::setObject(Value value, std::string_view key) {
    return m_state->change([&](Dictionary& values) { values.set(key, std::move(value)); });
}

Result<void> UserDefaults::removeObjectForKey(std::string_view key) {
    return m_state->change([&](Dictionary& values) { values.remove(key); });
}

}  // namespace velkor::NS
