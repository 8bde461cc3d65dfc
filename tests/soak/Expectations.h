#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tests/soak/StoreDump.h"

namespace velkor::soak {

/// What the hosts' common store must hold, gathered from the steps since the hosts were last at rest. Where only one host touched
/// a note its last state must have survived; where several did, one of theirs.
class Expectations {
public:
    using HostNumber = std::size_t;

    void notebookAdded(const std::string& guid);
    void privateNotebookAdded(HostNumber owner, const std::string& guid);
    void draftAdded(HostNumber host, const std::string& text);
    /// A note was added or changed in any way; this is what the host has now.
    void touched(HostNumber host, const std::string& guid, const DumpedObject& note);
    // What more there was to it. No notebook: out of its notebook.
    void moved(const std::string& guid, const std::optional<std::string>& notebook);
    void tagged(HostNumber host, const std::string& guid, const std::string& tag);
    void untagged(HostNumber host, const std::string& guid, const std::string& tag);
    void attached(const std::string& guid, const std::string& fileName, const std::string& sha1);
    void removed(HostNumber host, const std::string& guid);
    void expiredByService(const std::string& guid);
    /// A host marked it expired, which lasts until it compares itself with the service.
    void expiredByHand(const std::string& guid);

    /// Notes that some host may have as expired.
    std::vector<std::string> expiredNotes() const;
    /// Notes that nothing has happened to since the hosts were last at rest.
    std::vector<std::string> quietNotes() const;
    /// Notes that have been in a private notebook.
    const std::set<std::string>& looseNotes() const noexcept { return m_looseNotes; }
    /// What a host lacks that only it has, or has what only another one has.
    std::vector<std::string> complaintsAboutPrivateObjects(HostNumber host, const StoreDump& dump) const;
    /// What the hosts' stores, known to be equal, lack or hold against expectation.
    std::vector<std::string> complaints(const std::vector<StoreDump>& dumps) const;
    /// The hosts are at rest with these stores: what follows is expected on top of them.
    void settle(const std::vector<StoreDump>& dumps);

    // Guids when the hosts were last at rest.
    const std::vector<std::string>& knownAttachments() const noexcept { return m_knownAttachments; }
    const std::vector<std::string>& knownTags() const noexcept { return m_knownTags; }

private:
    struct Note {
        std::string state;                    // after the last touch: what survives when one host touched it
        std::set<std::string> states;         // after each: any of them may have won
        std::optional<std::string> notebook;  // after the last
        std::set<std::string> tags;           // when the hosts were last at rest
        std::map<std::string, std::set<bool>> tagChanges;
        std::set<HostNumber> touchedBy, removedBy;
        bool wasAtRest = false;
        bool expiredByService = false;  // since the hosts were last at rest, or then already
        bool expiredByHand = false;     // since then
        bool loose = false;             // was changed where it was expired, which is nothing for others: it may hold anything
    };
    struct Tag {
        std::string name;
        std::set<HostNumber> removedBy;
    };
    struct Attachment {
        std::string note, sha1;  // sha1 empty: no content
        std::string guid;        // once known
        bool mayBeGone = false;
    };

    bool mayHoldAnything(const std::string& note) const;
    void complainAboutNote(const std::string& guid, const Note& note, const StoreDump& dump,
                           std::vector<std::string>& complaints) const;
    void complainAboutTagsOf(const std::string& guid, const Note& note, const StoreDump& dump,
                             std::vector<std::string>& complaints) const;
    void complainAboutExpiry(const std::string& guid, const Note& note, const std::vector<StoreDump>& dumps,
                             std::vector<std::string>& complaints) const;
    void complainAboutTags(const StoreDump& dump, std::vector<std::string>& complaints) const;
    void complainAboutAttachments(const StoreDump& dump, std::vector<std::string>& complaints) const;
    static std::set<std::string> tagNames(const DumpedObject& note, const StoreDump& dump);

    std::map<std::string, Note> m_notes;
    std::map<std::string, bool> m_notebooks;  // whether a host removed it
    std::map<std::string, HostNumber> m_privateNotebooks;
    std::map<HostNumber, std::set<std::string>> m_drafts;
    std::map<std::string, Tag> m_tags;                             // by guid, when the hosts were last at rest
    std::map<std::string, std::set<HostNumber>> m_tagNamesUsedBy;  // in changes since then
    std::map<std::string, Attachment> m_attachments;               // by file name
    std::vector<std::string> m_knownAttachments, m_knownTags;
    std::set<std::string> m_looseNotes;
};

}  // namespace velkor::soak
