// The steps of a walk that change something on one host, and one that kills such a change.
#include <filesystem>
#include <fstream>

#include "tests/soak/Walk.h"

namespace velkor::soak {

namespace {

const std::vector<std::string> tagNamesOfWalks = {"red", "green", "blue", "grey"};
constexpr int killedWithin = 30;        // milliseconds: about as long as a command takes
constexpr std::size_t mostFiles = 130;  // more than a chunk's hundred changes

}  // namespace

void Walk::addNote() {
    const HostNumber number = pickHost();
    const std::string guid = fresh("note"), title = "Title of " + guid, body = fresh("body");
    std::vector<std::string> arguments{"add", title, "--guid", guid, "--body", body};
    NS::Dictionary attributes{{"title", title}, {"body", body}};
    std::string tag, notebook;
    if (chance(4)) {
        arguments.push_back("--pinned");
        attributes.set("pinned", true);
    }
    if (chance(2)) arguments.insert(arguments.end(), {"--tag", tag = pickFrom(tagNamesOfWalks)});
    if (chance(2) && !m_notebooks.empty()) arguments.insert(arguments.end(), {"--notebook", notebook = pickFrom(m_notebooks)});
    if (!change(number, arguments)) return;
    m_notes.push_back(guid);
    touched(number, guid, attributes);
    if (!tag.empty()) m_expectations.tagged(number, guid, tag);
    if (!notebook.empty()) m_expectations.moved(guid, notebook);
}

void Walk::editNote() {
    if (m_notes.empty()) return;
    const HostNumber number = pickHost();
    const std::string guid = pickFrom(m_notes);
    std::vector<std::string> arguments{"edit", guid};
    const NS::Dictionary attributes = newAttributes(arguments);
    if (change(number, arguments)) touched(number, guid, attributes);
}

void Walk::tagNote() {
    if (m_notes.empty()) return;
    const HostNumber number = pickHost();
    const std::string guid = pickFrom(m_notes), tag = pickFrom(tagNamesOfWalks);
    const bool adds = !chance(3);
    if (!change(number, {"edit", guid, adds ? "--tag" : "--untag", tag})) return;
    touched(number, guid);
    if (adds) {
        m_expectations.tagged(number, guid, tag);
    } else {
        m_expectations.untagged(number, guid, tag);
    }
}

void Walk::moveNote() {
    if (m_notes.empty()) return;
    const HostNumber number = pickHost();
    const std::string guid = pickFrom(m_notes);
    std::optional<std::string> notebook;
    if (!m_privateNotebooks[number].empty() && chance(8)) {
        notebook = pickFrom(m_privateNotebooks[number]);
    } else if (!m_notebooks.empty() && !chance(4)) {
        notebook = pickFrom(m_notebooks);
    }
    if (!change(number, {"edit", guid, "--notebook", notebook.value_or("none")})) return;
    touched(number, guid);
    m_expectations.moved(guid, notebook);
}

void Walk::attachFile() {
    if (m_notes.empty()) return;
    const HostNumber number = pickHost();
    const std::string guid = pickFrom(m_notes);
    const File file = makeFile();
    if (!change(number, {"edit", guid, "--attach", file.path})) return;
    touched(number, guid);
    m_expectations.attached(guid, file.name, file.sha1);
}

void Walk::removeObject() {
    const HostNumber number = pickHost();
    const auto& list = chance(6)    ? m_notebooks
                       : chance(4)  ? m_expectations.knownAttachments()
                       : chance(12) ? m_expectations.knownTags()
                                    : m_notes;
    if (list.empty()) return;
    const std::string guid = pickFrom(list);
    if (change(number, {"rm", guid})) m_expectations.removed(number, guid);
}

void Walk::importFiles() {
    const HostNumber number = pickHost();
    const std::filesystem::path directory = m_directory / fresh("tree");
    const std::string title = directory.filename();
    std::filesystem::create_directory(directory);
    const std::size_t files = pick(mostFiles);
    for (std::size_t i = 0; i < files; ++i) std::ofstream(directory / (title + "-" + std::to_string(i))) << i;
    if (!change(number, {"import", directory})) return;
    std::size_t found = 0;
    std::string notebook;
    const StoreDump dump = dumpOf(number);
    for (const auto& [guid, object] : dump.objects()) {
        if (object.entity == "Notebook" && object.text("title") == title) notebook = guid;
    }
    m_notebooks.push_back(notebook);
    m_expectations.notebookAdded(notebook);
    for (const auto& [guid, object] : dump.objects()) {
        if (object.entity != "Note" || !object.text("title").starts_with(title + "-")) continue;
        requireAttributes(object, {{"body", object.text("title").substr(title.size() + 1)}});
        m_notes.push_back(guid);
        m_expectations.touched(number, guid, object);
        m_expectations.moved(guid, notebook);
        ++found;
    }
    if (found != files) throw Failure{"import made " + std::to_string(found) + " notes of " + std::to_string(files) + " files"};
}

void Walk::addNotebook() {
    const std::string guid = fresh("notebook");
    change(pickHost(), {"notebook", "Title of " + guid, "--guid", guid});
    m_notebooks.push_back(guid);
    m_expectations.notebookAdded(guid);
}

void Walk::addPrivateNotebook() {
    const HostNumber number = pickHost();
    const std::string guid = fresh("private");
    change(number, {"notebook", "Title of " + guid, "--guid", guid, "--private"});
    m_privateNotebooks[number].push_back(guid);
    m_expectations.privateNotebookAdded(number, guid);
}

void Walk::addDraft() {
    const HostNumber number = pickHost();
    const std::string text = fresh("draft");
    change(number, {"draft", text});
    m_expectations.draftAdded(number, text);
}

void Walk::changePreferences() {
    const std::string keyPath = chance(2) ? "theme" : "editor.fontSize", value = fresh("value");
    const bool removes = chance(4);
    m_preferences[keyPath] = removes ? std::nullopt : std::optional(value);
    for (HostNumber number = 0; number < m_hosts.size(); ++number) {
        change(number, removes ? std::vector<std::string>{"unset", keyPath} : std::vector<std::string>{"set", keyPath, value});
    }
}

void Walk::expireByHand() {
    const HostNumber number = pickHost();
    const bool expires = !chance(3);
    const auto notes = expires ? m_expectations.quietNotes() : m_expectations.expiredNotes();
    if (notes.empty()) return;
    const std::string guid = pickFrom(notes);
    // Of what a host hides a second time the service thinks that it cannot be stored there.
    if (expires && !m_expiredByHand.emplace(number, guid).second) return;
    if (!change(number, {"edit", guid, "--expired", expires ? "on" : "off"})) return;
    if (expires) {
        m_expectations.expiredByHand(guid);
    } else {
        touched(number, guid, {{"expired", false}});
    }
}

void Walk::killChange() {
    const HostNumber number = pickHost();
    const bool adds = m_notes.empty() || chance(3);
    const std::string guid = adds ? fresh("note") : pickFrom(m_notes), body = fresh("body");
    const File file = makeFile();
    std::vector<std::string> arguments{"edit", guid, "--body", body, "--rating", "7", "--attach", file.path};
    if (adds) {
        arguments[0] = "add";
        arguments.insert(arguments.begin() + 1, {"Title of " + guid, "--guid"});
    }
    auto program = host(number).start(arguments);
    waitRandomly(killedWithin);
    kill(*program);
    // All of it is there, or nothing.
    const StoreDump dump = dumpOf(number);
    const DumpedObject* killed = dump.find(guid);
    const bool done = killed && killed->text("body") == body;
    bool attached = false;
    for (const auto& [key, object] : dump.objects()) attached |= object.text("fileName") == file.name;
    record("host" + std::to_string(number) + " killed in " + arguments[0] + " " + guid + " " + body +
           (done ? ": done" : ": not done"));
    if (attached != done) throw Failure{"a killed command was done by halves"};
    if (!done) return;
    if (adds) m_notes.push_back(guid);
    requireAttributes(*killed, {{"rating", 7}});
    m_expectations.touched(number, guid, *killed);
    m_expectations.attached(guid, file.name, file.sha1);
}

}  // namespace velkor::soak
