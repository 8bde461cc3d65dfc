// Fetches: the store's answer, corrected by what the context has not saved yet.
#include <algorithm>
#include <cstdint>

#include "objectstore/ContextState.h"
#include "objectstore/PredicateEvaluator.h"
#include "objectstore/ValueOrder.h"
#include "platform/base/Format.h"

namespace velkor::NS {

namespace {

Error badRequest(std::string_view text) { return Error::withDescription(PlatformErrorDomain, StoreError::badRequest, text); }

/// The request as the store wants it, `extra` objects above its limit.
FetchRequest storedRequest(const FetchRequest& request, const EntityDescription& entity, std::size_t extra) {
    FetchRequest stored(&entity);
    stored.predicate = predicateWithKeys(request.predicate, entity);
    stored.sortDescriptors = request.sortDescriptors;
    stored.limit = request.limit;
    if (stored.limit) *stored.limit += std::min(extra, SIZE_MAX - *stored.limit);
    return stored;
}

}  // namespace

Result<std::vector<ContextState::ObjectRef>> ContextState::fetch(const FetchRequest& request) {
    if (!request.entity || !ownEntity(*request.entity)) return badRequest("the fetch request has no entity of this store");
    std::vector<ObjectRef> found;
    if (!answerFromLookups(request, found)) {
        if (auto result = fetchStored(request, found); !result) return result.error();
    }
    if (request.limit && found.size() > *request.limit) found.resize(*request.limit);
    for (const std::string& name : request.relationshipsToPrefetch) {
        const RelationshipDescription* relationship = ownEntity(*request.entity)->relationshipNamed(name);
        if (!relationship) return badRequest(format("%@ has no relationship %@ to prefetch", request.entity->name(), name));
        if (auto result = prefetch(found, *relationship); !result) return result.error();
    }
    return found;
}

Result<void> ContextState::fetchStored(const FetchRequest& request, std::vector<ObjectRef>& found) {
    const EntityDescription& entity = *ownEntity(*request.entity);
    const std::size_t unsaved = changes.countOf(entity);
    auto session = coordinator->session();
    if (!session) return session.error();
    auto result = session.value()->fetch(storedRequest(request, entity, unsaved), [&](StoredRow&& row) {
        ManagedObject* known = registry.find(entity, row.key);
        ObjectRef object = known ? sharedOf(*known) : nullptr;
        if (!object) object = makeObject(entity, row.key);
        if (stateOf(*object).status != ObjectStatus::unchanged) return;  // judged by its own values below
        takeRow(*object, row);
        found.push_back(std::move(object));
    });
    if (!result || unsaved == 0) return result;
    const PredicateEvaluator predicate(request.predicate, entity);
    const std::size_t unchanged = found.size();
    for (const auto* list : {&changes.updated(), &changes.inserted()}) {
        for (const ObjectRef& object : *list) {
            if (object && &object->entity() == &entity && predicate.matches(*object)) found.push_back(object);
        }
    }
    if (found.size() > unchanged) sortObjects(found, request);
    return {};
}

bool ContextState::answerFromLookups(const FetchRequest& request, std::vector<ObjectRef>& found) {
    const Predicate& predicate = request.predicate;
    if (lookups.empty() || predicate.kind() != Predicate::Kind::comparison) return false;
    if (predicate.comparison() != Predicate::Comparison::equal) return false;
    const EntityDescription& entity = *ownEntity(*request.entity);
    const AttributeDescription* attribute = entity.attributeNamed(predicate.name());
    const KeySet* candidates = attribute ? lookups.candidates(entity, attribute->index, predicate.value()) : nullptr;
    if (!candidates) return false;
    for (RowKey key : *candidates) {
        ManagedObject* known = registry.find(entity, key);
        ObjectRef object = known ? sharedOf(*known) : nullptr;
        if (!object) {  // nobody held it: the store has to be asked
            if (key < 0) continue;
            found.clear();
            return false;
        }
        if (stateOf(*object).fault) fire(*object);
        ObjectState& state = stateOf(*object);
        if (state.isAlive() && state.values()[attribute->index] == predicate.value()) found.push_back(std::move(object));
    }
    sortObjects(found, request);
    return true;
}

Result<std::size_t> ContextState::count(const FetchRequest& request) {
    if (!request.entity || !ownEntity(*request.entity)) return badRequest("the fetch request has no entity of this store");
    const EntityDescription& entity = *ownEntity(*request.entity);
    auto session = coordinator->session();
    if (!session) return session.error();
    FetchRequest stored = storedRequest(request, entity, 0);
    stored.sortDescriptors.clear();
    if (changes.countOf(entity) == 0) return session.value()->count(stored);
    stored.limit.reset();
    std::vector<RowKey> judgedHere;  // by their own values
    changes.forEach([&](const ManagedObject& object) {
        if (&object.entity() == &entity && stateOf(object).key > 0) judgedHere.push_back(stateOf(object).key);
    });
    auto count = session.value()->count(stored, judgedHere);
    if (!count) return count;
    std::size_t matches = count.value();
    const PredicateEvaluator predicate(request.predicate, entity);
    for (const auto* list : {&changes.updated(), &changes.inserted()}) {
        for (const ObjectRef& object : *list) matches += object && &object->entity() == &entity && predicate.matches(*object);
    }
    return request.limit ? std::min(matches, *request.limit) : matches;
}

Result<void> ContextState::prefetch(std::span<const ObjectRef> objects, const RelationshipDescription& relationship) {
    const EntityDescription& entity = *relationship.destination;
    std::vector<ManagedObject*> owners;
    for (const ObjectRef& object : objects) {
        ObjectState& state = stateOf(*object);
        if (&object->entity() != relationship.entity || !state.isAlive()) continue;
        if (state.fault) fire(*object);
        if (!relationship.toMany || !linksOf(*object, relationship).isLoaded()) owners.push_back(object.get());
    }
    if (relationship.toMany && !owners.empty()) {
        if (auto result = loadLinks(owners, relationship); !result) return result;
    }
    std::vector<ObjectRef> held;
    std::vector<ManagedObject*> faults;
    KeySet seen;
    const auto gather = [&](RowKey key) {
        if (key == 0 || !seen.insert(key)) return;
        ObjectRef object = objectForKey(entity, key);
        if (!object) return;
        if (stateOf(*object).fault) faults.push_back(object.get());
        held.push_back(std::move(object));
    };
    for (const ObjectRef& object : objects) {
        if (&object->entity() != relationship.entity || !stateOf(*object).isAlive()) continue;
        if (!relationship.toMany) {
            gather(stateOf(*object).keyAt(placeOf(relationship)));
        } else {
            for (RowKey key : linksOf(*object, relationship).current()) gather(key);
        }
    }
    Result<void> result = faults.empty() ? Result<void>() : refreshRows(entity, faults);
    prefetched[&relationship] = std::move(held);
    return result;
}

Result<std::vector<std::shared_ptr<ManagedObject>>> ManagedObjectContext::executeFetchRequest(const FetchRequest& request) {
    m_state->assertConfinement();
    return m_state->fetch(request);
}

Result<std::size_t> ManagedObjectContext::countForFetchRequest(const FetchRequest& request) {
    m_state->assertConfinement();
    return m_state->count(request);
}

Result<void> ManagedObjectContext::enumerateValues(const FetchRequest& request, std::span<const std::string> attributes,
                                                   const std::function<void(std::span<const Value>)>& handle) {
    m_state->assertConfinement();
    if (!request.entity || !m_state->ownEntity(*request.entity))
        return badRequest("the fetch request has no entity of this store");
    auto session = m_state->coordinator->session();
    if (!session) return session.error();
    return session.value()->project(storedRequest(request, *m_state->ownEntity(*request.entity), 0), attributes,
                                    [&](RowKey, std::span<const Value> values) { handle(values); });
}

Result<ObjectSet> ManagedObjectContext::preloadObjects(const EntityDescription& entity, const AttributeDescription& attribute,
                                                       const Array& values) {
    FetchRequest request(&entity);
    request.predicate = Predicate::in(attribute.name, values);
    auto found = executeFetchRequest(request);
    if (!found) return found.error();
    const EntityDescription& own = *m_state->ownEntity(entity);
    LookupCache& lookups = m_state->lookups;
    lookups.cover(own, attribute, values);
    for (const auto& object : found.value()) {
        ObjectState& state = stateOf(*object);
        lookups.add(own, attribute.index, state.values()[attribute.index], state.key);
    }
    return ObjectSet::ofDistinct(std::move(found).value());
}

Result<void> ManagedObjectContext::prefetchRelationship(const std::vector<std::shared_ptr<ManagedObject>>& objects,
                                                        const RelationshipDescription& relationship) {
    m_state->assertConfinement();
    return m_state->prefetch(objects, relationship);
}

void ManagedObjectContext::forgetPreloaded() {
    m_state->assertConfinement();
    m_state->forgetLookups();
}

}  // namespace velkor::NS
