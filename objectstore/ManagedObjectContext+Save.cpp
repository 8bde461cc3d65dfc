// Saving, and identities that last.
#include "objectstore/ContextState.h"
#include "objectstore/SaveOperation.h"

namespace velkor::NS {

void ContextState::adoptPermanentKeys() {
    if (!registry.hasTemporaries()) return;
    const auto permanent = [&](RowKey key) { return registry.permanentKey(key); };
    changes.forEach([&](ManagedObject& object) {
        ObjectState& state = stateOf(object);
        for (const RelationshipDescription& relationship : object.entity().relationships()) {
            if (relationship.toMany) {
                if (state.links) state.links[relationship.index].rewrite(permanent);
            } else if (const RowKey key = state.keyAt(placeOf(relationship)); key < 0) {
                state.setKeyAt(placeOf(relationship), permanent(key));
            }
        }
    });
}

Result<void> ContextState::givePermanentKeys(const EntityDescription& entity, const std::vector<ManagedObject*>& objects) {
    auto session = coordinator->session();
    if (!session) return session.error();
    auto first = session.value()->reserveKeys(entity, objects.size());
    if (!first) return first.error();
    RowKey next = first.value();
    for (ManagedObject* object : objects) {
        const RowKey temporary = stateOf(*object).key;
        if (temporary > 0) continue;  // named twice
        registry.remove(*object);
        registry.setPermanentKey(temporary, next);
        stateOf(*object).key = next++;
        registry.add(*object);
    }
    return {};
}

Result<void> ManagedObjectContext::save() {
    m_state->assertConfinement();
    if (m_state->changes.empty()) return {};
    return SaveOperation(*m_state).run();
}

Result<void> ManagedObjectContext::obtainPermanentIDsForObjects(const std::vector<std::shared_ptr<ManagedObject>>& objects) {
    m_state->assertConfinement();
    std::vector<std::vector<ManagedObject*>> byEntity(managedObjectModel().entities().size());
    for (const auto& object : objects) {
        const bool own = object->managedObjectContext() == this;
        if (own && stateOf(*object).key < 0) byEntity[object->entity().index()].push_back(object.get());
    }
    Result<void> result;
    for (const auto& entity : managedObjectModel().entities()) {
        const auto& waiting = byEntity[entity->index()];
        if (!waiting.empty() && !(result = m_state->givePermanentKeys(*entity, waiting))) break;
    }
    m_state->adoptPermanentKeys();  // those of the entities before a failure too
    m_state->lookups.clear();
    return result;
}

}  // namespace velkor::NS
