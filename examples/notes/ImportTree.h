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

    /// Adds the file as a note (as an attachment of one when it is no text), or the directory with everything below it. Raises
    /// CommandError when it cannot be read at all.
    void add(const std::filesystem::path& path);

    std::size_t notebooks() const noexcept { return m_notebooks; }
    std::size_t notes() const noexcept { return m_notes; }
    std::size_t attachments() const noexcept { return m_attachments; }

private:
    void addDirectory(const std::filesystem::path& directory, const std::string& title);
    void addFile(const std::filesystem::path& file, const ObjectPtr& notebook);

    velkor::NS::ManagedObjectContext& m_context;
    Progress& m_progress;
    velkor::NS::Date m_now;
    std::size_t m_notebooks = 0;
    std::size_t m_notes = 0;
    std::size_t m_attachments = 0;
};

}  // namespace notes
