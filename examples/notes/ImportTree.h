#pragma once

#include <VelkorSync/ManagedObjectContext.h>

#include <cstddef>
#include <filesystem>
#include <string>

#include "examples/notes/Progress.h"
#include "examples/notes/Store.h"

namespace notes {

/// Reads directories and files into unsaved notebooks and notes of a context.
class ImportTree {
public:
    ImportTree(velkor::NS::ManagedObjectContext& context, Progress& progress);

    /// Adds the file as a note, or the directory with everything below it. Raises CommandError when it cannot be read at all.
    void add(const std::filesystem::path& path);

    std::size_t notebooks() const noexcept { return m_notebooks; }
    std::size_t notes() const noexcept { return m_notes; }
    std::size_t attachments() const noexcept { return 0; }
    /// Files that are no text; they are not taken in.
    std::size_t otherFiles() const noexcept { return m_otherFiles; }

private:
    void addDirectory(const std::filesystem::path& directory, const std::string& title);
    void addFile(const std::filesystem::path& file, const ObjectPtr& notebook);

    velkor::NS::ManagedObjectContext& m_context;
    Progress& m_progress;
    velkor::NS::Date m_now;
    std::size_t m_notebooks = 0;
    std::size_t m_notes = 0;
    std::size_t m_otherFiles = 0;
};

}  // namespace notes
