#include "tests/soak/Expectations.h"

#include <algorithm>

namespace velkor::soak {

// --- What the steps did ---

void Expectations::notebookAdded(const std::string& guid) { m_notebooks[guid] = false; }

void Expectations::privateNotebookAdded(HostNumber owner, const std::string& guid) { m_privateNotebooks[guid] = owner; }

void Expectations::draftAdded(HostNumber host, const std::string& text) { m_drafts[host].insert(text); }

void Expectations::touched(HostNumber host, const std::string& guid, const DumpedObject& shown) {
    Note& note = m_notes[guid];
    note.touchedBy.insert(host);
    note.state = shown.state();
    note.states.insert(note.state);
    note.loose |= shown.isTrue("expired");
}

void Expectations::moved(const std::string& guid, const std::optional<std::string>& notebook) {
    m_notes[guid].notebook = notebook;
    if (notebook && m_privateNotebooks.contains(*notebook)) m_looseNotes.insert(guid);
}

void Expectations::tagged(HostNumber host, const std::string& guid, const std::string& tag) {
    m_notes[guid].tagChanges[tag].insert(true);
    m_tagNamesUsedBy[tag].insert(host);
}

void Expectations::untagged(HostNumber host, const std::string& guid, const std::string& tag) {
    m_notes[guid].tagChanges[tag].insert(false);
    m_tagNamesUsedBy[tag].insert(host);
}

void Expectations::attached(const std::string& guid, const std::string& fileName, const std::string& sha1) {
    m_attachments[fileName] = {guid, sha1, {}, !m_notes[guid].removedBy.empty()};
}

void Expectations::removed(HostNumber host, const std::string& guid) {
    if (auto note = m_notes.find(guid); note != m_notes.end()) {
        note->second.removedBy.insert(host);
        note->second.loose |= note->second.expiredByHand;
    }
    if (auto notebook = m_notebooks.find(guid); notebook != m_notebooks.end()) notebook->second = true;
    if (auto tag = m_tags.find(guid); tag != m_tags.end()) tag->second.removedBy.insert(host);
    for (auto& [name, attachment] : m_attachments) {
        if (attachment.guid == guid || attachment.note == guid) attachment.mayBeGone = true;
    }
}

void Expectations::expiredByService(const std::string& guid) { m_notes[guid].expiredByService = m_notes[guid].loose = true; }

void Expectations::expiredByHand(const std::string& guid) { m_notes[guid].expiredByHand = true; }

std::vector<std::string> Expectations::expiredNotes() const {
    std::vector<std::string> guids;
    for (const auto& [guid, note] : m_notes) {
        if (note.expiredByService || note.expiredByHand) guids.push_back(guid);
    }
    return guids;
}

std::vector<std::string> Expectations::quietNotes() const {
    std::vector<std::string> guids;
    for (const auto& [guid, note] : m_notes) {
        const bool isQuiet = note.wasAtRest && note.touchedBy.empty() && note.removedBy.empty();
        if (isQuiet && !note.expiredByService && !note.expiredByHand) guids.push_back(guid);
    }
    return guids;
}

bool Expectations::mayHoldAnything(const std::string& guid) const {
    const auto note = m_notes.find(guid);
    return note != m_notes.end() && note->second.loose;
}

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

std::vector<std::string> Expectations::complaints(const std::vector<StoreDump>& dumps) const {
    std::vector<std::string> complaints;
    const StoreDump& dump = dumps.front();
    for (const auto& [guid, removed] : m_notebooks) {
        if (!removed && !dump.find(guid)) complaints.push_back("the notebook " + guid + " is lost");
    }
    for (const auto& [guid, note] : m_notes) {
        if (!note.loose) complainAboutNote(guid, note, dump, complaints);
        complainAboutExpiry(guid, note, dumps, complaints);
    }
    complainAboutTags(dump, complaints);
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
    if (ownDeletion && !note.removedBy.empty()) {
        complaints.push_back("the note " + guid + " is back");
        return;
    }
    const std::string state = object->state();
    const bool oneWon = note.touchedBy.size() > 1 || !note.removedBy.empty();
    if (oneWon ? !note.states.contains(state) : note.state != state) {
        complaints.push_back("the note " + guid + " is " + state + " instead of " + note.state);
    }
    if (!note.removedBy.empty()) return;

    const auto notebook = note.notebook ? m_notebooks.find(*note.notebook) : m_notebooks.end();
    const bool notebookStays = !note.notebook || (notebook != m_notebooks.end() && !notebook->second);
    if (note.touchedBy.size() <= 1 && notebookStays && !m_looseNotes.contains(guid) &&
        object->destination("notebook") != note.notebook) {
        complaints.push_back("the note " + guid + " lies in " + object->destination("notebook").value_or("no notebook") +
                             " instead of " + note.notebook.value_or("none"));
    }
    complainAboutTagsOf(guid, note, dump, complaints);
}

void Expectations::complainAboutTagsOf(const std::string& guid, const Note& note, const StoreDump& dump,
                                       std::vector<std::string>& complaints) const {
    std::set<std::string> expected = note.tags, found = tagNames(*dump.find(guid), dump);
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
    for (const auto& [tagGuid, tag] : m_tags) {
        // Another tag of that name may have been the one.
        if (!tag.removedBy.empty() && expected.erase(tag.name) > 0) found.erase(tag.name);
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

void Expectations::complainAboutExpiry(const std::string& guid, const Note& note, const std::vector<StoreDump>& dumps,
                                       std::vector<std::string>& complaints) const {
    // A change that the service got after it had declared the note expired makes it live again.
    const bool mustBe = note.expiredByService && note.touchedBy.empty() && note.removedBy.empty();
    for (HostNumber host = 0; host < dumps.size(); ++host) {
        const DumpedObject* object = dumps[host].find(guid);
        if (!object) continue;
        const bool is = object->isTrue("expired");
        if (is && !note.expiredByService)
            complaints.push_back("the note " + guid + " is expired on host" + std::to_string(host) + " for no reason");
        if (!is && mustBe) complaints.push_back("the note " + guid + " is not expired on host" + std::to_string(host));
    }
}

void Expectations::complainAboutTags(const StoreDump& dump, std::vector<std::string>& complaints) const {
    for (const auto& [guid, tag] : m_tags) {
        const bool isThere = dump.find(guid) != nullptr;
        if (!isThere && tag.removedBy.empty()) complaints.push_back("the tag " + guid + " is lost");
        if (!isThere || tag.removedBy.empty()) continue;
        const auto used = m_tagNamesUsedBy.find(tag.name);
        const bool ownDeletion = used == m_tagNamesUsedBy.end() || std::includes(tag.removedBy.begin(), tag.removedBy.end(),
                                                                                 used->second.begin(), used->second.end());
        if (ownDeletion) complaints.push_back("the tag " + guid + " is back");
    }
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
        if (!attachment.mayBeGone && !mayHoldAnything(attachment.note) &&
            object->second->destination("note") != attachment.note) {
            complaints.push_back("the attachment " + name + " has left the note " + attachment.note);
        }
    }
}

// --- At rest ---

void Expectations::settle(const std::vector<StoreDump>& dumps) {
    const StoreDump& dump = dumps.front();
    std::map<std::string, Note> notes;
    for (const auto& [guid, note] : m_notes) {
        const bool isExpired = std::any_of(dumps.begin(), dumps.end(), [&guid = guid](const StoreDump& one) {
            const DumpedObject* object = one.find(guid);
            return object && object->isTrue("expired");
        });
        const DumpedObject* object = dump.find(guid);
        if (!object && !isExpired) continue;
        Note& settled = notes[guid];
        settled.expiredByService = settled.loose = isExpired;
        if (isExpired) continue;
        settled.wasAtRest = true;
        settled.state = object->state();
        settled.notebook = object->destination("notebook");
        settled.tags = tagNames(*object, dump);
    }
    m_notes = std::move(notes);
    std::erase_if(m_notebooks, [&](const auto& notebook) { return !dump.find(notebook.first); });
    for (auto& [guid, wasRemoved] : m_notebooks) wasRemoved = false;
    m_tags.clear();
    m_tagNamesUsedBy.clear();
    m_knownTags.clear();
    std::map<std::string, Attachment> attachments;
    m_knownAttachments.clear();
    for (const auto& [guid, object] : dump.objects()) {
        if (object.entity == "Tag") {
            m_tags[guid] = {object.text("name"), {}};
            m_knownTags.push_back(guid);
        }
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
