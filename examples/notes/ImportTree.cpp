#include "examples/notes/ImportTree.h"

#include <VelkorSync/AtomicFile.h>
#include <VelkorSync/UTF8.h>

#include <algorithm>
#include <iostream>
#include <system_error>
#include <vector>

#include "examples/notes/Attachments.h"
#include "examples/notes/Options.h"
#include "examples/notes/Text.h"

namespace notes {

using namespace velkor;
namespace fs = std::filesystem;

namespace {

/// A larger text is no note that anybody reads, and its payload would exceed what a transaction may carry: it becomes an
/// attachment.
constexpr std::uint64_t largestText = 32u << 20;

void warn(const fs::path& path, std::string_view why) {
    std::cerr << "velkor-notes: skipping " << printable(path.string()) << ": " << why << '\n';
}

bool isText(std::string_view bytes) { return bytes.find('\0') == bytes.npos && NS::isValidUTF8(bytes); }

/// The entries to take in, sorted by name so that every run sees them in the same order.
std::vector<fs::directory_entry> entriesOf(const fs::path& directory, std::error_code& error) {
    std::vector<fs::directory_entry> entries;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end; entry.increment(error))
        entries.push_back(*entry);
    std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return a.path().native() < b.path().native(); });
    return entries;
}

}  // namespace

ImportTree::ImportTree(NS::ManagedObjectContext& context, Progress& progress)
    : m_context(context), m_progress(progress), m_now(wholeSecondsNow()) {}

void ImportTree::add(const fs::path& path) {
    std::error_code error;
    // "a/b/." and "a/b/" mean a/b: the last component names the notebook.
    fs::path absolute = fs::absolute(path, error).lexically_normal();
    if (!absolute.has_filename()) absolute = absolute.parent_path();
    auto status = fs::symlink_status(absolute, error);
    if (error || status.type() == fs::file_type::not_found) throw CommandError("there is no " + absolute.string());
    if (status.type() == fs::file_type::symlink) {
        warn(absolute, "it is a symbolic link");
    } else if (!NS::isValidUTF8(absolute.filename().native())) {
        warn(absolute, "its name is not UTF-8");
    } else if (status.type() == fs::file_type::directory) {
        addDirectory(absolute, absolute.filename().string());
    } else if (status.type() == fs::file_type::regular) {
        addFile(absolute, nullptr);
    } else {
        warn(absolute, "it is neither a file nor a directory");
    }
}

void ImportTree::addDirectory(const fs::path& directory, const std::string& title) {
    std::error_code error;
    auto entries = entriesOf(directory, error);
    if (error) return warn(directory, error.message());
    auto notebook = insertObject(m_context, "Notebook");
    notebook->setValueForKey(title, "title");
    ++m_notebooks;
    for (const auto& entry : entries) {
        const fs::path& path = entry.path();
        auto type = entry.symlink_status(error).type();
        if (error) {
            warn(path, error.message());
        } else if (type == fs::file_type::symlink) {
            warn(path, "it is a symbolic link");
        } else if (!NS::isValidUTF8(path.filename().native())) {
            warn(path, "its name is not UTF-8");
        } else if (type == fs::file_type::directory) {
            addDirectory(path, title + "/" + path.filename().string());
        } else if (type == fs::file_type::regular) {
            addFile(path, notebook);
        } else {
            warn(path, "it is neither a file nor a directory");
        }
    }
}

void ImportTree::addFile(const fs::path& file, const ObjectPtr& notebook) {
    auto read = NS::readFile(file, largestAttachment);
    if (!read.ok()) return warn(file, read.error().localizedDescription());
    NS::Data content = std::move(read).value();
    std::string name = file.filename().string();
    auto note = insertObject(m_context, "Note");
    note->setValueForKey(name, "title");
    note->setValueForKey(m_now, "createdAt");
    note->setValueForKey(m_now, "modifiedAt");
    if (notebook) note->setDestination(*note->entity().relationshipNamed("notebook"), notebook);
    ++m_notes;
    if (content.size() <= largestText && isText(content.view())) {
        note->setValueForKey(content.view(), "body");
    } else {
        attach(m_context, note, name, std::move(content));
        ++m_attachments;
    }
    if (m_progress.isShown()) m_progress.show("importing: " + std::to_string(m_notes) + " notes, " + name);
}

}  // namespace notes
