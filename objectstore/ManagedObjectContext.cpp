#include "objectstore/ManagedObjectContext.h"

#include "objectstore/ContextState.h"
#include "objectstore/ManagedObjectID.h"
#include "objectstore/ManagedObjectModel.h"
#include "objectstore/ObjectClass.h"
#include "platform/base/Exception.h"
#include "platform/base/Format.h"
#include "platform/concurrency/RunLoop.h"

namespace velkor::NS {

// ---- The context's inside ----

ContextState::ContextState(ManagedObjectContext& owner, std::shared_ptr<PersistentStoreCoordinator> store,
                           ConcurrencyType concurrency)
    : context(owner),
      coordinator(std::move(store)),
      type(concurrency),
      registry(coordinator->managedObjectModel().entities().size()),
      changes(coordinator->managedObjectModel().entities().size()) {}

void ContextState::checkConfinement() const {
    switch (type) {
        case ConcurrencyType::confinement:
            assertThat(std::this_thread::get_id() == thread, "a context is used by the thread that made it");
            break;
        case ConcurrencyType::mainQueue:
            assertThat(RunLoop::isMainThread(), "a main queue context is used by the main thread");
            break;
        case ConcurrencyType::privateQueue:
            break;
    }
}

ContextState::ObjectRef ContextState::makeObject(const EntityDescription& entity, RowKey key) {
    const ObjectClass* objectClass = entity.objectClass();
    ObjectRef object = objectClass ? objectClass->make() : std::make_shared<ManagedObject>();
    object->m_entity = &entity;
    object->m_state = ObjectState::make(entity.attributes().size() + entity.relationships().size());
    ObjectState& state = *object->m_state;
    if (key == 0) {
        state.key = registry.addTemporary(*object);
    } else {
        state.key = key;
        state.status = ObjectStatus::unchanged;
        state.fault = true;
        registry.add(*object);
        registry.addFault(*object);
    }
    object->m_context = this;
    return object;
}

ContextState::ObjectRef ContextState::objectForKey(const EntityDescription& entity, RowKey key) {
    if (ManagedObject* known = registry.find(entity, key)) {
        if (ObjectRef object = sharedOf(*known)) return object;
    }
    return key > 0 ? makeObject(entity, key) : nullptr;  // a temporary key of an object given up stands for nothing
}

void ContextState::detach(ManagedObject& object) noexcept {
    ObjectState& state = stateOf(object);
    if (state.status != ObjectStatus::departed) state.status = ObjectStatus::detached;
    state.fault = false;
    state.snapshot.reset();
    object.m_context = nullptr;
}

bool ContextState::willChange(ManagedObject& object, bool byRule) {
    ObjectState& state = stateOf(object);
    if (state.fault) fire(object);
    if (!state.isAlive()) return false;
    if (state.status == ObjectStatus::unchanged) {
        state.snapshot = std::make_unique<Snapshot>();
        state.snapshot->values.assign(state.values().begin(), state.values().end());
        state.assigned = false;
        changes.add(sharedOf(object), ObjectStatus::updated);
    }
    if (!byRule) state.assigned = true;
    return true;
}

void ContextState::setValue(ManagedObject& object, std::size_t attribute, Value value) {
    Value& held = stateOf(object).values()[attribute];
    if (held == value) return;
    if (!willChange(object)) return;
    if (!lookups.empty()) lookups.add(object.entity(), attribute, value, stateOf(object).key);
    held = std::move(value);
}

void ContextState::rollback() {
    const auto lists = changes.take();
    for (const ObjectRef& object : lists.inserted) {
        registry.remove(*object);
        detach(*object);
    }
    for (const auto* list : {&lists.updated, &lists.deleted}) {
        for (const ObjectRef& object : *list) {
            ObjectState& state = stateOf(*object);
            if (state.snapshot) std::move(state.snapshot->values.begin(), state.snapshot->values.end(), state.values().begin());
            state.snapshot.reset();
            for (const RelationshipDescription& relationship : object->entity().relationships()) {
                if (state.links) state.links[relationship.index].revert();
            }
            state.status = ObjectStatus::unchanged;
            if (state.version == unknownVersion) makeFault(*object);
        }
    }
    registry.clearTemporaries();
    forgetLookups();
}

void ContextState::forgetEverything() {
    const auto lists = changes.take();  // objects die when nothing refers to them any more
    const auto pinned = std::move(prefetched);
    registry.forEach([&](ManagedObject& object) { detach(object); });
    registry.clear();
    forgetLookups();
}

void ContextState::forgetLookups() noexcept {
    lookups.clear();
    prefetched.clear();
    readAhead.clear();
}

const EntityDescription* ContextState::ownEntity(const EntityDescription& entity) const noexcept {
    const ManagedObjectModel& model = coordinator->managedObjectModel();
    return &entity.model() == &model ? &entity : model.entityNamed(entity.name());
}

// ---- The context ----

ManagedObjectContext::ManagedObjectContext(std::shared_ptr<PersistentStoreCoordinator> coordinator, ConcurrencyType type)
    : m_state(std::make_unique<ContextState>(*this, std::move(coordinator), type)) {}

std::shared_ptr<ManagedObjectContext> ManagedObjectContext::create(std::shared_ptr<PersistentStoreCoordinator> coordinator,
                                                                   ConcurrencyType type) {
    assertThat(coordinator != nullptr, "a context works on a store");
    return std::shared_ptr<ManagedObjectContext>(new ManagedObjectContext(std::move(coordinator), type));
}

ManagedObjectContext::~ManagedObjectContext() { m_state->forgetEverything(); }

const std::shared_ptr<PersistentStoreCoordinator>& ManagedObjectContext::persistentStoreCoordinator() const noexcept {
    return m_state->coordinator;
}

const ManagedObjectModel& ManagedObjectContext::managedObjectModel() const noexcept {
    return m_state->coordinator->managedObjectModel();
}
ConcurrencyType ManagedObjectContext::concurrencyType() const noexcept { return m_state->type; }
MergePolicy ManagedObjectContext::mergePolicy() const noexcept { return m_state->policy; }
void ManagedObjectContext::setMergePolicy(MergePolicy policy) noexcept { m_state->policy = policy; }
const std::string& ManagedObjectContext::author() const noexcept { return m_state->author; }
void ManagedObjectContext::setAuthor(std::string author) { m_state->author = std::move(author); }

std::shared_ptr<ManagedObject> ManagedObjectContext::insertNewObject(const EntityDescription& entity) {
    m_state->assertConfinement();
    const EntityDescription* own = m_state->ownEntity(entity);
    if (!own) throw Exception(InvalidArgumentException, format("the store has no entity %@", entity.name()));
    auto object = m_state->makeObject(*own, 0);
    auto values = stateOf(*object).values();
    for (const AttributeDescription& attribute : own->attributes()) {
        values[attribute.index] = attribute.defaultValue;
        if (!m_state->lookups.empty()) m_state->lookups.add(*own, attribute.index, attribute.defaultValue, stateOf(*object).key);
    }
    m_state->changes.add(object, ObjectStatus::inserted);
    object->awakeFromInsert();
    return object;
}

std::shared_ptr<ManagedObject> ManagedObjectContext::insertNewObjectForEntityForName(std::string_view name) {
    const EntityDescription* entity = managedObjectModel().entityNamed(name);
    if (!entity) throw Exception(InvalidArgumentException, format("the store has no entity %@", name));
    return insertNewObject(*entity);
}

void ManagedObjectContext::deleteObject(const std::shared_ptr<ManagedObject>& object) {
    m_state->assertConfinement();
    if (!object || !object->managedObjectContext()) return;
    assertThat(object->managedObjectContext() == this, "an object is deleted by its own context");
    m_state->deleteObject(*object);
}

std::shared_ptr<ManagedObject> ManagedObjectContext::objectWithID(const ManagedObjectID& objectID) {
    m_state->assertConfinement();
    const EntityDescription* entity = m_state->ownEntity(objectID.entity());
    return entity ? m_state->objectForKey(*entity, objectID.key()) : nullptr;
}

bool ManagedObjectContext::hasChanges() const noexcept { return !m_state->changes.empty(); }

namespace {

template <class Keep>
ObjectSet setOf(const ChangeTracker::List& list, Keep&& keep) {
    std::vector<std::shared_ptr<ManagedObject>> objects;
    for (const auto& object : list) {
        if (object && keep(*object)) objects.push_back(object);
    }
    return ObjectSet::ofDistinct(std::move(objects));
}

bool always(const ManagedObject&) { return true; }

}  // namespace

ObjectSet ManagedObjectContext::insertedObjects() const { return setOf(m_state->changes.inserted(), always); }

ObjectSet ManagedObjectContext::updatedObjects() const {
    return setOf(m_state->changes.updated(), [](const ManagedObject& object) { return object.isUpdated(); });
}

ObjectSet ManagedObjectContext::deletedObjects() const { return setOf(m_state->changes.deleted(), always); }

void ManagedObjectContext::rollback() {
    m_state->assertConfinement();
    m_state->rollback();
}

void ManagedObjectContext::reset() {
    m_state->assertConfinement();
    m_state->forgetEverything();
}

}  // namespace velkor::NS
