#include "tests/soak/Expectations.h"

#include <algorithm>

namespace velkor::soak {

// --- What the steps did ---

void Expectations::notebookAdded(const std::string& guid) { m_notebooks[guid] = false; }

void Expectations::privateNotebookAdded(HostNumber owner, const std::string& guid) { m_privateNotebooks[guid] = owner; }

void Expectations::draftAdded(HostNumber host, const std::string& text) { m_drafts[host].insert(text); }

void Expectations::noteAdded(HostNumber host, const std::string& guid, const std::string& body) { bodyChanged(host, guid, body); }

Expectations::Note& Expectations::touch(HostNumber host, const std::string& guid) {
    Note& note = m_notes[guid];
    note.touchedBy.insert(host);
    return note;
}

void Expectations::bodyChanged(HostNumber host, const std::string& guid, const std::string& body) {
    Note& note = touch(host, guid);
    note.body = body;
    note.bodies.insert(body);
}

void Expectations::moved(HostNumber host, const std::string& guid, const std::optional<std::string>& notebook) {
    touch(host, guid).notebook = notebook;
    if (notebook && m_privateNotebooks.contains(*notebook)) m_looseNotes.insert(guid);
}

void Expectations::tagged(HostNumber host, const std::string& guid, const std::string& tag) {
    touch(host, guid).tagChanges[tag].insert(true);
}

void Expectations::untagged(HostNumber host, const std::string& guid, const std::string& tag) {
    touch(host, guid).tagChanges[tag].insert(false);
}

void Expectations::attached(HostNumber host, const std::string& guid, const std::string& fileName, const std::string& sha1) {
    touch(host, guid);
    m_attachments[fileName] = {guid, sha1, {}, false};
}

void Expectations::removed(HostNumber host, const std::string& guid) {
    if (auto note = m_notes.find(guid); note != m_notes.end()) note->second.removedBy.insert(host);
    if (auto notebook = m_notebooks.find(guid); notebook != m_notebooks.end()) notebook->second = true;
    m_privateNotebooks.erase(guid);
    for (auto& [name, attachment] : m_attachments) {
        if (attachment.guid == guid || attachment.note == guid) attachment.mayBeGone = true;
    }
}

void Expectations::exempt(const std::string& guid) { m_notes[guid].exempt = true; }

// --- What must be there ---

std::vector<std::string> Expectations::complaintsAboutPrivateObjects(HostNumber host, const StoreDump& dump) const {
    std::vector<std::string> complaints;
    for (const auto& [guid, owner] : m_privateNotebooks) {
        if ((dump.find(guid) != nullptr) != (owner == host))
            complaints.push_back("the private notebook " + guid + " is on the wrong host");
    }
    if (const auto drafts = m_drafts.find(host); drafts != m_drafts.end()) {
        for (const std::string& draft : drafts->second) {
            if (dump.drafts().count(draft) != 1) complaints.push_back("the draft \"" + draft + "\" is not there once");
        }
    }
    return complaints;
}

std::vector<std::string> Expectations::complaints(const StoreDump& dump) const {
    std::vector<std::string> complaints;
    for (const auto& [guid, removed] : m_notebooks) {
        if (!removed && !dump.find(guid)) complaints.push_back("the notebook " + guid + " is lost");
    }
    for (const auto& [guid, note] : m_notes) {
        if (!note.exempt) complainAboutNote(guid, note, dump, complaints);
    }
    complainAboutAttachments(dump, complaints);
    return complaints;
}

void Expectations::complainAboutNote(const std::string& guid, const Note& note, const StoreDump& dump,
                                     std::vector<std::string>& complaints) const {
    const DumpedObject* object = dump.find(guid);
    const bool ownDeletion =
        std::includes(note.removedBy.begin(), note.removedBy.end(), note.touchedBy.begin(), note.touchedBy.end());
    if (!object) {
        if (note.removedBy.empty()) complaints.push_back("the note " + guid + " is lost");
        return;
    }
    if (!note.removedBy.empty()) {
        if (ownDeletion) complaints.push_back("the note " + guid + " is back");
        return;
    }
    const std::string body = object->text("body");
    const bool right = note.touchedBy.size() > 1 ? note.bodies.contains(body) : note.body == body;
    if (!right) complaints.push_back("the note " + guid + " has the body \"" + body + "\" instead of \"" + note.body + "\"");

    const auto notebook = note.notebook ? m_notebooks.find(*note.notebook) : m_notebooks.end();
    const bool notebookStays = !note.notebook || (notebook != m_notebooks.end() && !notebook->second);
    if (note.touchedBy.size() <= 1 && notebookStays && !m_looseNotes.contains(guid) &&
        object->destination("notebook") != note.notebook) {
        complaints.push_back("the note " + guid + " lies in " + object->destination("notebook").value_or("no notebook") +
                             " instead of " + note.notebook.value_or("none"));
    }
    std::set<std::string> expected = note.tags, found = tagNames(*object, dump);
    for (const auto& [tag, changes] : note.tagChanges) {
        if (changes.size() > 1) {
            expected.erase(tag);
            found.erase(tag);
        } else if (*changes.begin()) {
            expected.insert(tag);
        } else {
            expected.erase(tag);
        }
    }
    if (expected == found) return;
    std::string difference;
    for (const auto& tag : expected) difference += found.contains(tag) ? "" : " lacks " + tag;
    for (const auto& tag : found) difference += expected.contains(tag) ? "" : " has " + tag;
    complaints.push_back("the tags of note " + guid + " are wrong: it" + difference);
}

std::set<std::string> Expectations::tagNames(const DumpedObject& note, const StoreDump& dump) {
    std::set<std::string> names;
    for (const std::string& guid : note.destinations("tags")) {
        if (const DumpedObject* tag = dump.find(guid)) names.insert(tag->text("name"));
    }
    return names;
}

void Expectations::complainAboutAttachments(const StoreDump& dump, std::vector<std::string>& complaints) const {
    std::map<std::string, const DumpedObject*> found;
    for (const auto& [guid, object] : dump.objects()) {
        if (object.entity == "Attachment") found[object.text("fileName")] = &object;
    }
    for (const auto& [name, attachment] : m_attachments) {
        const auto object = found.find(name);
        if (object == found.end()) {
            if (!attachment.mayBeGone) complaints.push_back("the attachment " + name + " is lost");
            continue;
        }
        const NS::Dictionary* content = object->second->attributes["content"].asDictionary();
        const std::string sha1 = content ? (*content)["sha1"].stringOr("") : "";
        if (sha1 != attachment.sha1) {
            complaints.push_back("the content of attachment " + name + " is " + (sha1.empty() ? "empty" : sha1) + " instead of " +
                                 attachment.sha1);
        }
        if (!attachment.mayBeGone && object->second->destination("note") != attachment.note) {
            complaints.push_back("the attachment " + name + " has left the note " + attachment.note);
        }
    }
}

// --- At rest ---

void Expectations::settle(const StoreDump& dump) {
    std::map<std::string, Note> notes;
    for (const auto& [guid, note] : m_notes) {
        const DumpedObject* object = dump.find(guid);
        if (!object && !note.exempt) continue;
        Note& settled = notes[guid];
        settled.exempt = note.exempt;
        if (!object) continue;
        settled.body = object->text("body");
        settled.bodies = {settled.body};
        settled.notebook = object->destination("notebook");
        settled.tags = tagNames(*object, dump);
    }
    m_notes = std::move(notes);
    std::erase_if(m_notebooks, [&](const auto& notebook) { return !dump.find(notebook.first); });
    for (auto& [guid, wasRemoved] : m_notebooks) wasRemoved = false;
    std::map<std::string, Attachment> attachments;
    m_knownAttachments.clear();
    for (const auto& [guid, object] : dump.objects()) {
        if (object.entity != "Attachment") continue;
        const auto known = m_attachments.find(object.text("fileName"));
        if (known == m_attachments.end()) continue;
        // One whose note is gone, or was for a while, follows no further rule than that it keeps its content.
        const auto note = object.destination("note");
        attachments[known->first] = {known->second.note, known->second.sha1, guid, note != known->second.note};
        m_knownAttachments.push_back(guid);
    }
    m_attachments = std::move(attachments);
}

}  // namespace velkor::soak
