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
/// an object its last state must have survived; where several did, one of theirs.
class Expectations {
public:
    using HostNumber = std::size_t;

    void notebookAdded(const std::string& guid);
    void privateNotebookAdded(HostNumber owner, const std::string& guid);
    void draftAdded(HostNumber host, const std::string& text);
    void noteAdded(HostNumber host, const std::string& guid, const std::string& body);
    void bodyChanged(HostNumber host, const std::string& guid, const std::string& body);
    /// None: out of its notebook.
    void moved(HostNumber host, const std::string& guid, const std::optional<std::string>& notebook);
    void tagged(HostNumber host, const std::string& guid, const std::string& tag);
    void untagged(HostNumber host, const std::string& guid, const std::string& tag);
    void attached(HostNumber host, const std::string& guid, const std::string& fileName, const std::string& sha1);
    void removed(HostNumber host, const std::string& guid);
    /// The service declared it expired, or a host that was killed may or may not have done something to it: only the equality of
    /// the hosts tells whether that is right.
    void exempt(const std::string& guid);

    /// Notes that have been in a private notebook.
    const std::set<std::string>& looseNotes() const noexcept { return m_looseNotes; }
    /// What a host lacks that only it has, or has what only another one has.
    std::vector<std::string> complaintsAboutPrivateObjects(HostNumber host, const StoreDump& dump) const;
    /// What the hosts' common store lacks, or holds against expectation.
    std::vector<std::string> complaints(const StoreDump& dump) const;
    /// The hosts are at rest with this store: what follows is expected on top of it.
    void settle(const StoreDump& dump);

    const std::vector<std::string>& knownAttachments() const noexcept { return m_knownAttachments; }

private:
    struct Note {
        std::string body;                     // of the only host that touched it
        std::set<std::string> bodies;         // any of them may have won
        std::optional<std::string> notebook;  // likewise
        std::set<std::string> tags;           // when the hosts were last at rest
        std::map<std::string, std::set<bool>> tagChanges;
        std::set<HostNumber> touchedBy, removedBy;
        bool exempt = false;
    };
    struct Attachment {
        std::string note, sha1;  // sha1 empty: no content
        std::string guid;        // once known
        bool mayBeGone = false;
    };

    Note& touch(HostNumber host, const std::string& guid);
    void complainAboutNote(const std::string& guid, const Note& note, const StoreDump& dump,
                           std::vector<std::string>& complaints) const;
    void complainAboutAttachments(const StoreDump& dump, std::vector<std::string>& complaints) const;
    static std::set<std::string> tagNames(const DumpedObject& note, const StoreDump& dump);

    std::map<std::string, Note> m_notes;
    std::map<std::string, bool> m_notebooks;  // whether a host removed it
    std::map<std::string, HostNumber> m_privateNotebooks;
    std::map<HostNumber, std::set<std::string>> m_drafts;
    std::map<std::string, Attachment> m_attachments;  // by file name
    std::vector<std::string> m_knownAttachments;      // guids
    std::set<std::string> m_looseNotes;
};

}  // namespace velkor::soak
