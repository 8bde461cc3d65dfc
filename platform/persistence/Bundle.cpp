#include "platform/persistence/Bundle.h"

#include <dlfcn.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <mutex>

#include "platform/base/SystemLog.h"
#include "platform/persistence/PropertyList.h"

namespace velkor::NS {
namespace {

using std::filesystem::path;

path executableDirectory() {
    std::error_code error;
    return std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
}

// The data directory of the installation that this code was loaded from: "share/VelkorSync" beside one of the directories above.
path installedDataDirectory() {
    Dl_info self{};
    static const char here = 0;
    if (dladdr(&here, &self) == 0 || !self.dli_fname) return {};
    std::error_code error;
    path directory = std::filesystem::weakly_canonical(self.dli_fname, error).parent_path();
    for (int level = 0; level < 4 && directory.has_relative_path(); ++level, directory = directory.parent_path()) {
        if (const path data = directory / "share" / "VelkorSync"; std::filesystem::is_directory(data, error)) return data;
    }
    return {};
}

std::vector<path> directoriesOfEnvironment() {
    std::vector<path> directories;
    const char* list = std::getenv("VELKORSYNC_RESOURCES");
    for (std::string_view rest = list ? list : ""; !rest.empty();) {
        const std::size_t end = std::min(rest.find(':'), rest.size());
        if (end != 0) directories.emplace_back(rest.substr(0, end));
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return directories;
}

}  // namespace

struct Bundle::Content {
    const bool isLibrary;
    mutable std::mutex mutex;
    bool informationLoaded = false;
    Dictionary information;
    Dictionary localizedStrings;
    std::vector<path> addedDirectories;

    explicit Content(bool library) : isLibrary(library), informationLoaded(library) {}
};

Bundle::Bundle(bool library) : m_content(new Content(library)) {}

Bundle& Bundle::mainBundle() {
    static auto& bundle = *new Bundle(false);
    return bundle;
}

Bundle& Bundle::libraryBundle() {
    static auto& bundle = *new Bundle(true);
    return bundle;
}

const Dictionary& Bundle::infoDictionary() const {
    std::unique_lock lock(m_content->mutex);
    if (std::exchange(m_content->informationLoaded, true)) return m_content->information;
    const auto found = dictionaryWithContentsOfFile(executableDirectory() / "Info.plist");
    if (found) m_content->information = found.value();
    lock.unlock();  // a log handler may ask for the bundle
    if (!found && found.error().code() != ENOENT) systemLog(found.error().localizedDescription());
    return m_content->information;
}

void Bundle::setInfoDictionary(Dictionary info) {
    const std::lock_guard lock(m_content->mutex);
    m_content->informationLoaded = true;
    m_content->information = std::move(info);
}

std::optional<std::string> Bundle::bundleIdentifier() const {
    const auto identifier = infoDictionary()["CFBundleIdentifier"].asString();
    return identifier ? std::optional(std::string(*identifier)) : std::nullopt;
}

void Bundle::addResourceDirectory(path directory) {
    const std::lock_guard lock(m_content->mutex);
    m_content->addedDirectories.push_back(std::move(directory));
}

std::vector<path> Bundle::pathsForResourcesOfType(std::string_view extension) const {
    std::vector<path> directories;
    if (m_content->isLibrary) directories = directoriesOfEnvironment();
    {
        const std::lock_guard lock(m_content->mutex);
        directories.insert(directories.end(), m_content->addedDirectories.begin(), m_content->addedDirectories.end());
    }
    directories.push_back(m_content->isLibrary ? installedDataDirectory() : executableDirectory());

    const std::string ending = "." + std::string(extension);
    std::vector<path> resources;
    for (const path& directory : directories) {
        const auto first = static_cast<std::ptrdiff_t>(resources.size());
        std::error_code error;
        for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end; entry.increment(error)) {
            if (entry->path().extension() == ending) resources.push_back(entry->path());
        }
        std::sort(resources.begin() + first, resources.end());
    }
    return resources;
}

std::string Bundle::localizedString(std::string_view key) const {
    const std::lock_guard lock(m_content->mutex);
    return m_content->localizedStrings[key].stringOr(key);
}

void Bundle::setLocalizedStrings(Dictionary table) {
    const std::lock_guard lock(m_content->mutex);
    m_content->localizedStrings = std::move(table);
}

}  // namespace velkor::NS
