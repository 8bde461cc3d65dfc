#include "examples/notes/ExportTree.h"

#include <algorithm>
#include <fstream>
#include <system_error>

#include "examples/notes/Options.h"
#include "examples/notes/Text.h"

namespace notes {

using namespace velkor;
namespace fs = std::filesystem;

namespace {

/// Longest name of a file that every usual file system takes, in bytes.
constexpr std::size_t longestName = 255;

/// A name that stays inside its directory.
std::string safeName(std::string name) {
    std::replace(name.begin(), name.end(), '/', '_');
    if (name.empty() || name == "." || name == ".." || name.find('\0') != name.npos) return "_";
    return shortened(std::move(name), longestName);
}

std::vector<std::string> components(const std::string& title) {
    std::vector<std::string> names;
    for (std::size_t begin = 0; begin <= title.size();) {
        std::size_t end = std::min(title.find('/', begin), title.size());
        names.push_back(safeName(title.substr(begin, end - begin)));
        begin = end + 1;
    }
    return names;
}

}  // namespace

ExportTree::ExportTree(fs::path directory, Progress& progress) : m_root(std::move(directory)), m_progress(progress) {
    std::error_code error;
    auto status = fs::status(m_root, error);
    if (fs::exists(status)) {
        if (!fs::is_directory(status)) throw CommandError(m_root.string() + " is not a directory");
        bool empty = fs::is_empty(m_root, error);
        if (error) throw CommandError("cannot read " + m_root.string() + ": " + error.message());
        if (!empty) throw CommandError(m_root.string() + " is not empty");
    } else {
        fs::create_directories(m_root, error);
        if (error) throw CommandError("cannot make " + m_root.string() + ": " + error.message());
    }
}

void ExportTree::write(NS::ManagedObjectContext& context) {
    // Directories first: a file that would take a directory's name gets another one.
    std::map<std::string, fs::path> directories;
    forEachByGuid(context, "Notebook", [&](const ObjectPtr& notebook) {
        directories[textOf(*notebook, "guid")] = directoryFor(textOf(*notebook, "title"));
        ++m_notebooks;
    });
    forEachByGuid(context, "Note", [&](const ObjectPtr& note) {
        auto notebook = note->destination(*note->entity().relationshipNamed("notebook"));
        writeNote(*note, notebook ? directories[textOf(*notebook, "guid")] : m_root);
    });
}

fs::path ExportTree::directoryFor(const std::string& notebookTitle) {
    fs::path directory = m_root;
    for (const std::string& name : components(notebookTitle)) {
        directory /= name;
        m_taken.insert(directory);
    }
    std::error_code error;
    fs::create_directories(directory, error);
    if (error) throw CommandError("cannot make " + directory.string() + ": " + error.message());
    return directory;
}

void ExportTree::writeNote(const NS::ManagedObject& note, const fs::path& directory) {
    auto set = note.destinations(*note.entity().relationshipNamed("attachments"));
    std::vector<ObjectPtr> attachments(set.begin(), set.end());
    std::sort(attachments.begin(), attachments.end(),
              guidIsLess);  // which of two equal names keeps it is the same on all machines
    NS::Value body = note.valueForKey("body");
    if (!body.isNil() || attachments.empty()) {
        writeFile(directory, textOf(note, "title"), textOf(note, "guid"), body.asString().value_or(""));
    }
    for (const auto& attachment : attachments) {
        NS::Value content = attachment->valueForKey("content");
        std::string_view bytes = content.asData() ? content.asData()->view() : std::string_view();
        writeFile(directory, textOf(*attachment, "fileName"), textOf(*attachment, "guid"), bytes);
        ++m_attachments;
    }
    ++m_notes;
    if (m_progress.isShown()) m_progress.show("exporting: " + std::to_string(m_notes) + " notes");
}

void ExportTree::writeFile(const fs::path& directory, const std::string& name, const std::string& guid, std::string_view bytes) {
    fs::path path = directory / safeName(name);
    if (!m_taken.insert(path).second) {
        std::string suffix = " (" + firstCharacters(guid, 8) + ")";
        std::string base = shortened(safeName(name), longestName - suffix.size() - 4);
        path = directory / safeName(base + suffix);
        for (int number = 2; !m_taken.insert(path).second; ++number)
            path = directory / safeName(base + suffix + " " + std::to_string(number));
    }
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    file.close();
    if (!file) throw CommandError("cannot write " + path.string());
}

}  // namespace notes
