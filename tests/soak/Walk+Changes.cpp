// The steps of a walk that change something on one host, and one that kills such a change.
#include <signal.h>

#include "tests/soak/Walk.h"

namespace velkor::soak {

namespace {

const std::vector<std::string> tagNamesOfWalks = {"red", "green", "blue", "grey"};
constexpr int killedWithin = 30;  // milliseconds: about as long as a command takes

}  // namespace

void Walk::addNote() {
    const HostNumber number = pickHost();
    const std::string guid = fresh("note"), body = fresh("body");
    std::vector<std::string> arguments{"add", "Title of " + guid, "--guid", guid, "--body", body};
    std::string tag, notebook;
    if (chance(2)) arguments.insert(arguments.end(), {"--tag", tag = pickFrom(tagNamesOfWalks)});
    if (chance(2) && !m_notebooks.empty()) arguments.insert(arguments.end(), {"--notebook", notebook = pickFrom(m_notebooks)});
    if (!change(number, arguments)) return;
    m_notes.push_back(guid);
    m_expectations.noteAdded(number, guid, body);
    if (!tag.empty()) m_expectations.tagged(number, guid, tag);
    if (!notebook.empty()) m_expectations.moved(number, guid, notebook);
}

void Walk::editNote() {
    if (m_notes.empty()) return;
    const HostNumber number = pickHost();
    const std::string guid = pickFrom(m_notes), body = fresh("body");
    std::vector<std::string> arguments{"edit", guid, "--body", body};
    if (chance(3))
        arguments.insert(arguments.end(),
                         {"--rating", std::to_string(pick(6)), "--score", "0.25", "--pinned", chance(2) ? "on" : "off"});
    if (change(number, arguments)) m_expectations.bodyChanged(number, guid, body);
}

void Walk::tagNote() {
    if (m_notes.empty()) return;
    const HostNumber number = pickHost();
    const std::string guid = pickFrom(m_notes), tag = pickFrom(tagNamesOfWalks);
    const bool adds = !chance(3);
    if (!change(number, {"edit", guid, adds ? "--tag" : "--untag", tag})) return;
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
    if (change(number, {"edit", guid, "--notebook", notebook.value_or("none")})) m_expectations.moved(number, guid, notebook);
}

void Walk::attachFile() {
    if (m_notes.empty()) return;
    const HostNumber number = pickHost();
    const std::string guid = pickFrom(m_notes);
    const File file = makeFile();
    if (change(number, {"edit", guid, "--attach", file.path})) m_expectations.attached(number, guid, file.name, file.sha1);
}

void Walk::removeObject() {
    const HostNumber number = pickHost();
    const auto& list = chance(6) ? m_notebooks : chance(4) ? m_expectations.knownAttachments() : m_notes;
    if (list.empty()) return;
    const std::string guid = pickFrom(list);
    if (change(number, {"rm", guid})) m_expectations.removed(number, guid);
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
    for (HostNumber number = 0; number < m_hosts.size(); ++number) {
        change(number, removes ? std::vector<std::string>{"unset", keyPath} : std::vector<std::string>{"set", keyPath, value});
    }
}

void Walk::killChange() {
    const HostNumber number = pickHost();
    const bool adds = m_notes.empty() || chance(3);
    const std::string guid = adds ? fresh("note") : pickFrom(m_notes), body = fresh("body");
    const File file = makeFile();
    std::vector<std::string> arguments{"edit", guid, "--body", body, "--attach", file.path};
    if (adds) arguments = {"add", "Title of " + guid, "--guid", guid, "--body", body, "--attach", file.path};
    auto program = host(number).start(arguments);
    waitRandomly(killedWithin);
    program->signal(SIGKILL);
    program->wait();
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
    m_expectations.bodyChanged(number, guid, body);
    m_expectations.attached(number, guid, file.name, file.sha1);
}

}  // namespace velkor::soak
