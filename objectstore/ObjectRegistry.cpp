#include "objectstore/ObjectRegistry.h"

#include <algorithm>
#include <atomic>
#include <cassert>

namespace velkor::NS {

namespace {

// Each registry takes its temporary keys from a range of its own: what one context gives out means nothing to the others.
constexpr RowKey temporaryKeysEach = RowKey(1) << 32;
std::atomic<RowKey> registriesWithTemporaries = 0;

}  // namespace

std::shared_ptr<ManagedObject> sharedOf(ManagedObject& object) noexcept {
    return std::static_pointer_cast<ManagedObject>(object.weak_from_this().lock());
}

ManagedObject* ObjectRegistry::find(const EntityDescription& entity, RowKey key) const noexcept {
    if (key < 0) {
        const Temporary* found = temporary(key);
        return found && found->object && &found->object->entity() == &entity ? found->object : nullptr;
    }
    ManagedObject* const* found = m_entities[entity.index()].living.find(key);
    return found ? *found : nullptr;
}

ManagedObject* ObjectRegistry::findDeparted(const EntityDescription& entity, RowKey key) const noexcept {
    ManagedObject* const* found = m_entities[entity.index()].departed.find(key);
    return found ? *found : nullptr;
}

void ObjectRegistry::add(ManagedObject& object) { entityOf(object).living.set(stateOf(object).key, &object); }

void ObjectRegistry::depart(ManagedObject& object) {
    remove(object);
    entityOf(object).departed.set(stateOf(object).key, &object);
}

void ObjectRegistry::remove(ManagedObject& object) noexcept {
    const ObjectState& state = stateOf(object);
    if (state.fault) removeFault(object);
    if (Temporary* held = temporary(state.key); held && held->object == &object) held->object = nullptr;
    Entity& entity = entityOf(object);
    // A new object may stand for the row already when the last owner of the old one lets go of it.
    for (auto* table : {&entity.living, &entity.departed}) {
        if (ManagedObject** held = table->find(state.key); held && *held == &object) table->erase(state.key);
    }
}

RowKey ObjectRegistry::addTemporary(ManagedObject& object) {
    if (m_firstTemporary == 0) m_firstTemporary = -1 - temporaryKeysEach * registriesWithTemporaries++;
    m_temporaries.push_back({&object, 0});
    return m_firstTemporary - RowKey(m_temporaries.size() - 1);
}

const ObjectRegistry::Temporary* ObjectRegistry::temporary(RowKey key) const noexcept {
    const auto place = std::uint64_t(m_firstTemporary - key);  // keys given out earlier lie far outside
    return key < 0 && place < m_temporaries.size() ? &m_temporaries[place] : nullptr;
}

void ObjectRegistry::setPermanentKey(RowKey key, RowKey permanent) noexcept {
    if (Temporary* held = temporary(key)) held->permanentKey = permanent;
}

RowKey ObjectRegistry::permanentKey(RowKey key) const noexcept {
    const Temporary* held = temporary(key);
    return held && held->permanentKey != 0 ? held->permanentKey : key;
}

void ObjectRegistry::forgetPermanentKeys() noexcept {
    for (Temporary& temporary : m_temporaries) temporary.permanentKey = 0;
}

void ObjectRegistry::clearTemporaries() noexcept {
    m_firstTemporary -= RowKey(m_temporaries.size());
    m_temporaries.clear();
    m_temporaries.shrink_to_fit();
}

void ObjectRegistry::addFault(ManagedObject& object) {
    auto& faults = entityOf(object).faults;
    stateOf(object).slot = std::uint32_t(faults.size());
    faults.push_back(&object);
}

void ObjectRegistry::removeFault(ManagedObject& object) noexcept {
    auto& faults = entityOf(object).faults;
    const std::uint32_t slot = stateOf(object).slot;
    assert(faults[slot] == &object);
    faults[slot] = faults.back();
    stateOf(*faults[slot]).slot = slot;
    faults.pop_back();
}

std::vector<ManagedObject*> ObjectRegistry::faultsWith(ManagedObject& fault, std::size_t limit) const {
    const auto& faults = entityOf(fault).faults;
    std::vector<ManagedObject*> batch{&fault};
    batch.reserve(std::min(limit, faults.size()));
    for (auto at = faults.rbegin(); at != faults.rend() && batch.size() < limit; ++at) {
        if (*at != &fault) batch.push_back(*at);
    }
    return batch;
}

void ObjectRegistry::clear() noexcept {
    for (Entity& entity : m_entities) entity = {};
    clearTemporaries();
}

}  // namespace velkor::NS
