#include "objectstore/ChangeTracker.h"

#include <algorithm>
#include <cassert>

namespace velkor::NS {

ChangeTracker::List& ChangeTracker::listOf(ObjectStatus status) noexcept {
    if (status == ObjectStatus::inserted) return m_inserted;
    return status == ObjectStatus::updated ? m_updated : m_deleted;
}

void ChangeTracker::add(std::shared_ptr<ManagedObject> object, ObjectStatus status) {
    ObjectState& state = stateOf(*object);
    if (state.isChanged()) remove(*object, state.status);
    List& list = listOf(status);
    state.status = status;
    state.slot = std::uint32_t(list.size());
    ++m_count;
    ++m_counts[object->entity().index()];
    list.push_back(std::move(object));
}

void ChangeTracker::remove(ManagedObject& object, ObjectStatus status) {
    ObjectState& state = stateOf(object);
    assert(listOf(state.status)[state.slot].get() == &object);
    --m_count;
    --m_counts[object.entity().index()];
    auto held = std::move(listOf(state.status)[state.slot]);
    state.status = status;
}

bool ChangeTracker::hasTouched() const noexcept {
    return std::any_of(m_touched.begin(), m_touched.end(), [](const KeySet& keys) { return !keys.empty(); });
}

ChangeTracker::Lists ChangeTracker::take() {
    Lists lists{std::move(m_inserted), std::move(m_updated), std::move(m_deleted)};
    for (List* list : {&lists.inserted, &lists.updated, &lists.deleted}) std::erase(*list, nullptr);
    m_inserted.clear();
    m_updated.clear();
    m_deleted.clear();
    m_count = 0;
    std::fill(m_counts.begin(), m_counts.end(), 0);
    for (KeySet& keys : m_touched) keys.clear();
    return lists;
}

}  // namespace velkor::NS
