#include "objectstore/LinkSet.h"

namespace velkor::NS {

const KeySet& LinkSet::noKeys() noexcept {
    static const KeySet none;
    return none;
}

LinkSet::Changes& LinkSet::changes() {
    if (!m_changes) m_changes = std::make_unique<Changes>();
    return *m_changes;
}

void LinkSet::load(std::vector<RowKey> stored) {
    m_current = KeySet(std::move(stored));
    m_loaded = true;
    m_unsettled = false;
    if (!m_changes) return;
    for (RowKey key : m_changes->added) m_current.insert(key);
    for (RowKey key : m_changes->removed) m_current.erase(key);
    for (RowKey key : m_changes->removedByRule) m_current.erase(key);
}

void LinkSet::unload() noexcept {
    m_current.clear();
    m_loaded = false;
    m_unsettled = hasChanges();
}

void LinkSet::add(RowKey key) {
    if (m_loaded) m_current.insert(key);
    Changes& made = changes();
    if (!made.removed.erase(key) && !made.removedByRule.erase(key)) made.added.insert(key);
}

void LinkSet::remove(RowKey key, bool byRule) {
    if (m_loaded) m_current.erase(key);
    Changes& made = changes();
    if (made.added.erase(key)) return;
    if (made.removed.contains(key)) return;
    if (byRule) {
        made.removedByRule.insert(key);
    } else {
        made.removedByRule.erase(key);
        made.removed.insert(key);
    }
}

void LinkSet::storeAdded(RowKey key) {
    if (m_changes && m_changes->added.erase(key)) return;
    if (m_loaded) m_current.insert(key);
}

void LinkSet::storeRemoved(RowKey key) {
    if (m_changes && (m_changes->removed.erase(key) || m_changes->removedByRule.erase(key))) return;
    if (m_loaded) m_current.erase(key);
}

void LinkSet::revert() noexcept {
    if (!m_changes) return;
    m_changes.reset();
    unload();
}

}  // namespace velkor::NS
