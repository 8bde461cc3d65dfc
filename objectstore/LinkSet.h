#pragma once

#include <memory>
#include <vector>

#include "objectstore/KeySet.h"

namespace velkor::NS {

/// The destinations of one object's to-many relationship, as row keys: the stored ones once they were loaded, and what the
/// context has changed since. Changes can be made, saved and reverted whether the stored ones are loaded or not. A key is in at
/// most one of added, removed and removed by rule. Internal to the object store.
class LinkSet {
public:
    bool isLoaded() const noexcept { return m_loaded; }
    /// The current destinations; only while loaded.
    const KeySet& current() const noexcept { return m_current; }

    /// Takes in the stored destinations, under the changes made so far.
    void load(std::vector<RowKey> stored);
    /// Forgets the stored destinations and keeps the changes.
    void unload() noexcept;
    /// There are changes that somebody else may have saved meanwhile: to be loaded before they are added to.
    bool isUnsettled() const noexcept { return m_unsettled; }

    /// The caller knows that the key is no (is a) destination now.
    void add(RowKey key);
    void remove(RowKey key, bool byRule);
    /// The store's own destinations have changed.
    void storeAdded(RowKey key);
    void storeRemoved(RowKey key);

    /// Changes that a user made; those of delete rules do not count.
    bool differs() const noexcept { return m_changes && !(m_changes->added.empty() && m_changes->removed.empty()); }
    bool hasChanges() const noexcept { return m_changes && (differs() || !m_changes->removedByRule.empty()); }
    const KeySet& added() const noexcept { return m_changes ? m_changes->added : noKeys(); }
    const KeySet& removed() const noexcept { return m_changes ? m_changes->removed : noKeys(); }
    const KeySet& removedByRule() const noexcept { return m_changes ? m_changes->removedByRule : noKeys(); }

    /// The changes have become the stored state.
    void commit() noexcept {
        m_changes.reset();
        m_unsettled = false;
    }
    void revert() noexcept;

    /// Replaces each key by what `change` makes of it.
    template <class F>
    void rewrite(F&& change) {
        m_current.rewrite(change);
        if (!m_changes) return;
        m_changes->added.rewrite(change);
        m_changes->removed.rewrite(change);
        m_changes->removedByRule.rewrite(change);
    }

private:
    struct Changes {
        KeySet added;
        KeySet removed;
        KeySet removedByRule;
    };
    static const KeySet& noKeys() noexcept;
    Changes& changes();

    KeySet m_current;
    std::unique_ptr<Changes> m_changes;
    bool m_loaded = false;
    bool m_unsettled = false;
};

}  // namespace velkor::NS
