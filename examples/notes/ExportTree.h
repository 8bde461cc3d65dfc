#pragma once

#include <VelkorSync/ManagedObjectContext.h>

#include <cstddef>
#include <filesystem>
#include <map>
#include <set>
#include <string>

#include "examples/notes/Progress.h"
#include "examples/notes/Store.h"

namespace notes {

/// Writes notebooks and notes as directories and files below one directory, and nowhere else.
class ExportTree {
public:
    /// The directory must be missing or empty. Raises CommandError otherwise.
    ExportTree(std::filesystem::path directory, Progress& progress);
    void write(velkor::NS::ManagedObjectContext& context);

    std::size_t notebooks() const noexcept { return m_notebooks; }
    std::size_t notes() const noexcept { return m_notes; }
    std::size_t attachments() const noexcept { return m_attachments; }

private:
    std::filesystem::path directoryFor(const std::string& notebookTitle);
    void writeNote(const velkor::NS::ManagedObject& note, const std::filesystem::path& directory);
    void writeFile(const std::filesystem::path& directory, const std::string& name, const std::string& guid,
                   std::string_view bytes);

    std::filesystem::path m_root;
    Progress& m_progress;
    std::set<std::filesystem::path> m_taken;
    std::size_t m_notebooks = 0;
    std::size_t m_notes = 0;
    std::size_t m_attachments = 0;
};

}  // namespace notes
