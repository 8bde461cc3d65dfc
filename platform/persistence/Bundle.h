#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/Dictionary.h"
#include "platform/base/Export.h"

namespace velkor::NS {

/// The program's (or the library's) resources and information dictionary. Set up at start on the main thread; read from any.
class VELKOR_EXPORT Bundle {
public:
    /// The host program: its information dictionary is the Info.plist beside the executable, or what the host sets.
    static Bundle& mainBundle();
    /// The library: model resources are looked for in the directories of VELKORSYNC_RESOURCES (separated by ":"), then those the
    /// host added, then the installed data directory.
    static Bundle& libraryBundle();

    const Dictionary& infoDictionary() const;
    void setInfoDictionary(Dictionary info);
    /// The text under CFBundleIdentifier, or none.
    std::optional<std::string> bundleIdentifier() const;
    void addResourceDirectory(std::filesystem::path directory);
    /// All resources of a type (the extension without its dot), sorted by path within a directory, directories in order.
    std::vector<std::filesystem::path> pathsForResourcesOfType(std::string_view extension) const;
    /// The localized text for the key: the host's table (set at start), else the key itself.
    std::string localizedString(std::string_view key) const;
    void setLocalizedStrings(Dictionary table);

private:
    explicit Bundle(bool library);
    struct Content;
    Content* m_content;  // lives until the process ends
};

}  // namespace velkor::NS
