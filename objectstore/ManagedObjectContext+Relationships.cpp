// Relationships in memory: links loaded on demand, both sides of an inverse kept in step.
#include <algorithm>

#include "objectstore/ContextState.h"
#include "objectstore/StoreReadFailure.h"
#include "platform/base/Exception.h"
#include "platform/base/Format.h"

namespace velkor::NS {

namespace {

constexpr std::size_t mostOwnersAhead = 256;

/// The child was read when it had another owner.
bool isStale(ManagedObject& child, const RelationshipDescription& toOne, RowKey owner) {
    ObjectState& state = stateOf(child);
    return state.status == ObjectStatus::unchanged && !state.fault && state.keyAt(placeOf(toOne)) != owner;
}

}  // namespace

LinkSet& ContextState::linksOf(ManagedObject& object, const RelationshipDescription& toMany) {
    assertThat(toMany.toMany && toMany.entity == &object.entity(), "the relationship is a to-many one of the object's entity");
    ObjectState& state = stateOf(object);
    if (!state.links) state.links = std::make_unique<LinkSet[]>(object.entity().relationships().size());
    LinkSet& links = state.links[toMany.index];
    if (!links.isLoaded() && state.status == ObjectStatus::inserted) links.load({});
    return links;
}

LinkSet& ContextState::loadedLinksOf(ManagedObject& object, const RelationshipDescription& toMany) {
    LinkSet& links = linksOf(object, toMany);
    if (links.isLoaded()) return links;
    if (stateOf(object).status == ObjectStatus::departed) {
        links.load({});
        return links;
    }
    // Hosts that ask one object after the other get them in growing groups.
    std::size_t& ahead = readAhead.try_emplace(&toMany, 1).first->second;
    std::vector<ManagedObject*> owners{&object};
    registry.forEachNear(object.entity(), stateOf(object).key, ahead - 1, [&](ManagedObject& other) {
        const ObjectState& state = stateOf(other);
        if (state.isAlive() && !(state.links && state.links[toMany.index].isLoaded())) owners.push_back(&other);
    });
    ahead = std::min(ahead * 2, mostOwnersAhead);
    if (auto result = loadLinks(owners, toMany); !result) throw StoreReadFailure(result.error());
    return linksOf(object, toMany);  // the load may have made the object a fault, without the links it had
}

Result<void> ContextState::loadLinks(std::span<ManagedObject* const> owners, const RelationshipDescription& toMany) {
    std::vector<RowKey> keys;
    for (ManagedObject* owner : owners) keys.push_back(stateOf(*owner).key);
    auto session = coordinator->session();
    if (!session) return session.error();
    KeyTable<std::uint32_t> ends;  // of the owner's part of `found`; parts follow one another
    std::vector<std::pair<RowKey, RowKey>> found;
    auto result = session.value()->destinations(toMany, keys, [&](RowKey owner, RowKey destination) {
        found.emplace_back(owner, destination);
        ends.set(owner, std::uint32_t(found.size()));
    });
    if (!result) return result;
    // A stale child may be an owner too, and a fault keeps no links: all of this comes before the first links are taken in.
    const RelationshipDescription* toOne = toMany.inverse && !toMany.inverse->toMany ? toMany.inverse : nullptr;
    for (const auto& [owner, key] : found) {
        forgetDeparted(*toMany.destination, key);
        ManagedObject* child = toOne ? registry.find(*toMany.destination, key) : nullptr;
        if (child && isStale(*child, *toOne, owner)) makeFault(*child);
    }
    for (ManagedObject* owner : owners) {
        std::vector<RowKey> stored;
        const std::uint32_t* end = ends.find(stateOf(*owner).key);
        for (std::size_t i = end ? *end : 0; i > 0 && found[i - 1].first == stateOf(*owner).key; --i)
            stored.push_back(found[i - 1].second);
        std::reverse(stored.begin(), stored.end());
        LinkSet& links = linksOf(*owner, toMany);
        if (toMany.manyToMany() && links.hasChanges()) settleLinks(*owner, toMany, KeySet(stored));
        links.load(std::move(stored));
    }
    return {};
}

/// What somebody else has saved in the same way is no change any more, on either side: undoing it is one.
void ContextState::settleLinks(ManagedObject& owner, const RelationshipDescription& toMany, const KeySet& stored) {
    LinkSet& links = linksOf(owner, toMany);
    const auto settle = [&](RowKey key, void (LinkSet::*tell)(RowKey)) {
        (links.*tell)(key);
        ManagedObject* other = toMany.inverse ? registry.find(*toMany.destination, key) : nullptr;
        if (other && stateOf(*other).isAlive() && stateOf(*other).links)
            (stateOf(*other).links[toMany.inverse->index].*tell)(stateOf(owner).key);
    };
    for (RowKey key : std::vector(links.added().keys())) {
        if (stored.contains(key)) settle(key, &LinkSet::storeAdded);
    }
    for (const KeySet* removed : {&links.removed(), &links.removedByRule()}) {
        for (RowKey key : std::vector(removed->keys())) {
            if (!stored.contains(key)) settle(key, &LinkSet::storeRemoved);
        }
    }
}

ContextState::ObjectRef ContextState::destination(const ManagedObject& owner, const RelationshipDescription& relationship,
                                                  RowKey key) {
    const EntityDescription& entity = *relationship.destination;
    const bool ownerAlive = stateOf(owner).isAlive();
    if (ManagedObject* known = registry.find(entity, key)) {
        ObjectRef object = sharedOf(*known);
        if (object) return ownerAlive && !stateOf(*object).isAlive() ? nullptr : object;
    }
    if (ManagedObject* known = registry.findDeparted(entity, key)) return ownerAlive ? nullptr : sharedOf(*known);
    return objectForKey(entity, key);
}

void ContextState::checkDestination(const ManagedObject& owner, const RelationshipDescription& relationship,
                                    const ManagedObject& destination) const {
    const auto refuse = [&](std::string_view reason) {
        throw Exception(InvalidArgumentException, format("%@ cannot be a destination of %@.%@: %@", destination.description(),
                                                         owner.entity().name(), relationship.name, reason));
    };
    if (relationship.entity != &owner.entity()) refuse("the relationship belongs to another entity");
    if (relationship.destination != &destination.entity()) refuse("it is of another entity");
    if (destination.m_context != this) refuse("it belongs to another context or to none");
}

void ContextState::writeToOne(ManagedObject& owner, const RelationshipDescription& toOne, RowKey destination, bool byRule) {
    if (!willChange(owner, byRule)) return;
    ObjectState& state = stateOf(owner);
    const std::size_t place = placeOf(toOne);
    if (state.snapshot) {
        auto& nullified = state.snapshot->nullifiedByRule;
        const bool untouched = state.values()[place] == state.snapshot->values[place];
        const bool known = std::find(nullified.begin(), nullified.end(), place) != nullified.end();
        if (byRule && untouched) {
            nullified.push_back(place);
        } else if (known && !byRule) {
            std::erase(nullified, place);
        }
    }
    state.setKeyAt(place, destination);
}

void ContextState::join(ManagedObject& object, const RelationshipDescription& relationship, ManagedObject& member) {
    const RowKey key = stateOf(member).key;
    if (!relationship.toMany) {
        writeToOne(object, relationship, key, false);
    } else if (willChange(object)) {
        linksOf(object, relationship).add(key);
    }
}

void ContextState::leave(ManagedObject& object, const RelationshipDescription& relationship, ManagedObject& member, bool byRule) {
    if (!willChange(object, byRule)) return;
    const RowKey key = stateOf(member).key;
    if (relationship.toMany) {
        linksOf(object, relationship).remove(key, byRule);
    } else if (stateOf(object).keyAt(placeOf(relationship)) == key) {
        writeToOne(object, relationship, 0, byRule);
    }
}

void ContextState::setDestination(ManagedObject& owner, const RelationshipDescription& toOne, ManagedObject* destination) {
    if (destination) checkDestination(owner, toOne, *destination);
    assertThat(!toOne.toMany && toOne.entity == &owner.entity(), "the relationship is a to-one one of the object's entity");
    const RowKey old = stateOf(owner).keyAt(placeOf(toOne));
    const RowKey fresh = destination ? stateOf(*destination).key : 0;
    if (old == fresh || !willChange(owner) || (destination && !willChange(*destination))) return;
    const RelationshipDescription* inverse = toOne.inverse;
    if (!inverse) {
        writeToOne(owner, toOne, fresh, false);
        return;
    }
    if (destination && !inverse->toMany) {  // the destination leaves its former partner
        const RowKey partner = stateOf(*destination).keyAt(placeOf(*inverse));
        const ObjectRef former = partner == 0 ? nullptr : objectForKey(*toOne.entity, partner);
        if (former) leave(*former, toOne, *destination, false);
    }
    const ObjectRef former = old == 0 ? nullptr : objectForKey(*toOne.destination, old);
    if (former) leave(*former, *inverse, owner, false);
    writeToOne(owner, toOne, fresh, false);
    if (destination) join(*destination, *inverse, owner);
}

bool ContextState::isLinked(ManagedObject& owner, const RelationshipDescription& toMany, ManagedObject& destination) {
    const RowKey to = stateOf(destination).key;
    const LinkSet& links = linksOf(owner, toMany);
    if (links.isLoaded()) return links.current().contains(to);
    if (links.added().contains(to)) return true;
    if (links.removed().contains(to) || links.removedByRule().contains(to)) return false;
    const ObjectState& other = stateOf(destination);
    if (toMany.inverse && (other.links || other.status == ObjectStatus::inserted)) {
        const LinkSet& back = linksOf(destination, *toMany.inverse);
        if (back.isLoaded()) return back.current().contains(stateOf(owner).key);
    }
    return loadedLinksOf(owner, toMany).current().contains(to);
}

void ContextState::changeLink(ManagedObject& owner, const RelationshipDescription& toMany, ManagedObject& destination,
                              bool linked) {
    assertThat(toMany.toMany, "several destinations belong to a to-many relationship");
    checkDestination(owner, toMany, destination);
    const RelationshipDescription* inverse = toMany.inverse;
    if (inverse && !inverse->toMany) {
        if (stateOf(destination).fault) fire(destination);
        const bool isThere = stateOf(owner).key == stateOf(destination).keyAt(placeOf(*inverse));
        if (linked != isThere) setDestination(destination, *inverse, linked ? &owner : nullptr);
        return;
    }
    const auto settled = [&](ManagedObject& object, const RelationshipDescription& side) {
        if (stateOf(object).links && linksOf(object, side).isUnsettled()) loadedLinksOf(object, side);
    };
    settled(owner, toMany);
    if (inverse) settled(destination, *inverse);
    if (isLinked(owner, toMany, destination) == linked || !willChange(owner) || !willChange(destination)) return;
    const auto change = [&](ManagedObject& object, const RelationshipDescription& side, ManagedObject& other) {
        LinkSet& links = linksOf(object, side);
        linked ? links.add(stateOf(other).key) : links.remove(stateOf(other).key, false);
    };
    change(owner, toMany, destination);
    if (inverse && !(inverse == &toMany && &owner == &destination)) change(destination, *inverse, owner);
}

void ContextState::setDestinations(ManagedObject& owner, const RelationshipDescription& toMany, const ObjectSet& destinations) {
    for (const ObjectRef& object : destinations) checkDestination(owner, toMany, *object);
    const KeySet& current = loadedLinksOf(owner, toMany).current();
    KeySet wanted;
    std::vector<ObjectRef> joining, leaving;  // all of them first, so that faults are fired together
    for (const ObjectRef& object : destinations) {
        wanted.insert(stateOf(*object).key);
        if (!current.contains(stateOf(*object).key)) joining.push_back(object);
    }
    for (RowKey key : current) {
        if (wanted.contains(key)) continue;
        if (auto object = destination(owner, toMany, key)) leaving.push_back(std::move(object));
    }
    std::vector<ObjectRef> former;  // owners of what joins: held until each has lost it
    for (const ObjectRef& object : joining) {
        if (!toMany.inverse || toMany.inverse->toMany) break;
        if (stateOf(*object).fault) fire(*object);
        if (const RowKey key = stateOf(*object).keyAt(placeOf(*toMany.inverse)); key != 0)
            former.push_back(objectForKey(*toMany.entity, key));
    }
    for (const ObjectRef& object : leaving) changeLink(owner, toMany, *object, false);
    for (const ObjectRef& object : joining) changeLink(owner, toMany, *object, true);
}

}  // namespace velkor::NS
