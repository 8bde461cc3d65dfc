#pragma once

#include <cstdint>
#include <memory>
#include <new>
#include <span>
#include <vector>

#include "objectstore/LinkSet.h"
#include "objectstore/ManagedObject.h"
#include "platform/base/Value.h"

namespace velkor::NS {

/// How an object stands in its context.
enum class ObjectStatus : std::uint8_t {
    detached,  // belongs to no context: never inserted, rolled back, or the context is gone
    unchanged,
    updated,   // has unsaved changes
    inserted,  // has no row yet
    deleted,   // its row goes with the next save
    departed,  // its row is gone; answers its last values
};

/// The row is known to have changed since it was read, or to be gone.
inline constexpr std::int64_t unknownVersion = 0;

/// What an object looked like before its first unsaved change.
struct Snapshot {
    std::vector<Value> values;
    /// Places of to-one relationships that a delete rule has set to nil and nobody has set since.
    std::vector<std::size_t> nullifiedByRule;
};

/// The inside of a managed object: identity, values, links. Its values stand behind it in the same block of memory. Internal to
/// the object store.
struct ObjectState {
    static std::unique_ptr<ObjectState> make(std::size_t count) {
        void* memory = ::operator new(sizeof(ObjectState) + count * sizeof(Value));
        return std::unique_ptr<ObjectState>(new (memory) ObjectState(count));
    }
    ~ObjectState() { std::destroy_n(first(), count); }
    ObjectState(const ObjectState&) = delete;
    ObjectState& operator=(const ObjectState&) = delete;
    static void operator delete(void* memory) noexcept { ::operator delete(memory); }

    /// The attributes in the entity's order, then for each relationship the destination's key (to-one; nil when none) or nil.
    std::span<Value> values() noexcept { return {first(), count}; }
    /// A to-one's destination; 0 when there is none.
    RowKey keyAt(std::size_t place) noexcept { return first()[place].asInteger().value_or(0); }
    void setKeyAt(std::size_t place, RowKey destination) { first()[place] = destination == 0 ? Value() : Value(destination); }
    bool isAlive() const noexcept { return status >= ObjectStatus::unchanged && status <= ObjectStatus::inserted; }
    bool isChanged() const noexcept { return status >= ObjectStatus::updated && status <= ObjectStatus::deleted; }

    /// The changes of all its to-many relationships have become the stored state.
    void commitLinks(const EntityDescription& entity) noexcept {
        for (std::size_t i = 0; links && i < entity.relationships().size(); ++i) links[i].commit();
    }

    RowKey key = 0;  // negative: temporary
    /// Of the row as it was read.
    std::int64_t version = unknownVersion;
    std::unique_ptr<Snapshot> snapshot;  // of an updated or deleted object
    std::unique_ptr<LinkSet[]> links;    // by relationship, once a to-many was loaded or changed
    std::uint32_t slot = 0;              // place among the context's faults, else in its list of changes
    std::uint16_t count;
    ObjectStatus status = ObjectStatus::detached;
    bool fault : 1 = false;
    /// A user's change was made, not just a delete rule's.
    bool assigned : 1 = false;

private:
    explicit ObjectState(std::size_t valueCount) : count(std::uint16_t(valueCount)) {
        std::uninitialized_value_construct_n(first(), count);
    }
    static void* operator new(std::size_t, void* place) noexcept { return place; }
    Value* first() noexcept { return std::launder(reinterpret_cast<Value*>(this + 1)); }
};
static_assert(alignof(ObjectState) >= alignof(Value));

/// The one way into an object for the object store's own classes.
ObjectState& stateOf(const ManagedObject& object) noexcept;

/// Where a relationship stands among an object's values.
inline std::size_t placeOf(const RelationshipDescription& relationship) noexcept {
    return relationship.entity->attributes().size() + relationship.index;
}

}  // namespace velkor::NS
