// Rows that somebody changed or removed since they were read.
#include <algorithm>

#include "objectstore/SaveOperation.h"
#include "platform/base/Format.h"

namespace velkor::NS {

namespace {

bool isOneToOne(const RelationshipDescription& relationship) noexcept {
    return !relationship.toMany && relationship.inverse && !relationship.inverse->toMany;
}

RowKey keyOf(const Value& value) noexcept { return value.asInteger().value_or(0); }

}  // namespace

Error SaveOperation::conflict(const ManagedObject& object) {
    return Error::withDescription(PlatformErrorDomain, StoreError::mergeConflict,
                                  format("%@ was changed in the store since it was read.", object.description()));
}

Result<std::vector<StoredRow>> SaveOperation::readRow(StoreSession& session, const EntityDescription& entity, RowKey key) {
    std::vector<StoredRow> found;
    auto result = session.rows(entity, std::span(&key, 1), [&](StoredRow&& row) { found.push_back(std::move(row)); });
    if (!result) return result.error();
    return found;
}

Result<void> SaveOperation::resolveConflict(StoreSession& session, Update& update) {
    ManagedObject& object = *update.object;
    if (m_context.policy == MergePolicy::error) return conflict(object);
    auto read = readRow(session, object.entity(), stateOf(object).key);
    if (!read) return read.error();
    if (read.value().empty()) return resolveMissing(session, update);
    StoredRow& row = read.value().front();

    ObjectState& state = stateOf(object);
    const Snapshot& snapshot = *state.snapshot;
    const auto own = rowValues(object);
    Resolution resolution{&object, row.values, row.values, row.version};
    std::vector<std::size_t> written;
    update.byUser = false;
    for (std::size_t place : placesOf(update)) {
        const bool byRule = std::ranges::find(snapshot.nullifiedByRule, place) != snapshot.nullifiedByRule.end();
        const bool changedInStore = !(row.values[place] == snapshot.values[place]);
        if (changedInStore && (byRule || m_context.policy == MergePolicy::storeWins)) continue;
        if (own[place] == row.values[place]) continue;
        resolution.values[place] = own[place];
        written.push_back(place);
        update.byUser |= !byRule;
        if (auto touched = touchDestination(session, object, place, row.values[place]); !touched) return touched;
    }
    bool relinked = false;
    if (state.links) {
        for (const LinkSet& links : std::span(state.links.get(), object.entity().relationships().size())) {
            relinked |= links.hasChanges();
            update.byUser |= links.differs();
        }
    }
    if (!written.empty() || relinked) {
        auto outcome = session.update(object.entity(), row.key, row.version, written, resolution.values);
        if (!outcome) return outcome.error();
        ++resolution.version;
    }
    m_resolutions.push_back(std::move(resolution));
    return {};
}

/// The object of the other side, which is no part of this save, loses or gets back the object.
Result<void> SaveOperation::touchDestination(StoreSession& session, ManagedObject& object, std::size_t place,
                                             const Value& destination) {
    const std::size_t attributes = object.entity().attributes().size();
    if (place < attributes || !destination) return {};
    const RelationshipDescription& relationship = object.entity().relationships()[place - attributes];
    if (!relationship.inverse || !relationship.inverse->toMany) return {};
    return rewriteRow(session, *relationship.destination, keyOf(destination), {});
}

Result<void> SaveOperation::resolveMissing(StoreSession& session, Update& update) {
    if (m_context.policy == MergePolicy::error) return conflict(*update.object);
    if (m_context.policy == MergePolicy::objectWins && update.byUser) return revive(session, *update.object);
    m_gone.insert(update.object);
    return {};
}

/// The row was removed, but the user's changes win: it is written again under its key, with a version that no reader of the
/// removed row can have seen.
Result<void> SaveOperation::revive(StoreSession& session, ManagedObject& object) {
    const auto own = rowValues(object);
    const auto version = std::int64_t(Date::now().timeIntervalSince1970() * 1e6);
    Resolution resolution{&object, {own.begin(), own.end()}, {own.begin(), own.end()}, version};
    auto inserted = session.insert(object.entity(), stateOf(object).key, resolution.values, version);
    if (!inserted) return inserted.error();
    session.touched(object.entity(), ChangeKind::inserted, {});
    m_resolutions.push_back(std::move(resolution));
    m_revived.push_back(&object);
    return {};
}

/// Those that came back may lead to rows that are gone; the others get them back.
Result<void> SaveOperation::reconnectRevived(StoreSession& session) {
    for (ManagedObject* object : m_revived) {
        for (const RelationshipDescription& relationship : object->entity().relationships()) {
            const std::size_t place = placeOf(relationship);
            const RowKey key = relationship.toMany ? 0 : m_context.registry.permanentKey(stateOf(*object).keyAt(place));
            if (key == 0) continue;
            auto read = readRow(session, *relationship.destination, key);
            if (!read) return read.error();
            auto written = read.value().empty()
                               ? rewriteRow(session, object->entity(), stateOf(*object).key, std::span(&place, 1))
                               : touchDestination(session, *object, place, Value(key));
            if (!written) return written;
        }
    }
    return {};
}

/// Objects of this save that were made to lead to an object whose row is gone lead nowhere.
Result<void> SaveOperation::dropReferences(StoreSession& session, ManagedObject& gone) {
    ObjectState& state = stateOf(gone);
    for (const RelationshipDescription& relationship : gone.entity().relationships()) {
        const RelationshipDescription* inverse = relationship.inverse;
        if (!inverse || inverse->toMany) continue;
        std::vector<RowKey> others;
        if (relationship.toMany) {
            if (state.links) others = state.links[relationship.index].added().keys();
        } else if (const RowKey key = state.keyAt(placeOf(relationship)); key != 0) {
            others.push_back(key);
        }
        const std::size_t place = placeOf(*inverse);
        for (RowKey key : others) {
            auto read = readRow(session, *relationship.destination, m_context.registry.permanentKey(key));
            if (!read) return read.error();
            if (read.value().empty() || keyOf(read.value().front().values[place]) != state.key) continue;
            auto written = rewriteRow(session, *relationship.destination, read.value().front().key, std::span(&place, 1));
            if (!written) return written;
        }
    }
    return {};
}

/// Both rows of a one-to-one relationship name each other, or neither does: conflicts are resolved row by row.
Result<void> SaveOperation::repairPartners(StoreSession& session) {
    for (std::size_t i = 0; i < m_resolutions.size(); ++i) {
        ManagedObject& object = *m_resolutions[i].object;
        for (const RelationshipDescription& relationship : object.entity().relationships()) {
            if (!isOneToOne(relationship)) continue;
            const std::size_t place = placeOf(relationship);
            const RowKey partners[] = {keyOf(m_resolutions[i].values[place]), keyOf(m_resolutions[i].rowValues[place]),
                                       m_context.registry.permanentKey(stateOf(object).keyAt(place))};
            for (RowKey partner : partners) {
                if (partner <= 0) continue;
                if (auto repaired = repairPartner(session, relationship, stateOf(object).key, partner); !repaired)
                    return repaired;
            }
        }
    }
    return {};
}

Result<void> SaveOperation::repairPartner(StoreSession& session, const RelationshipDescription& toOne, RowKey key,
                                          RowKey partner) {
    auto here = readRow(session, *toOne.entity, key);
    if (!here) return here.error();
    auto there = readRow(session, *toOne.destination, partner);
    if (!there) return there.error();
    const std::size_t place = placeOf(toOne);
    const std::size_t back = placeOf(*toOne.inverse);
    const bool leads = !here.value().empty() && keyOf(here.value().front().values[place]) == partner;
    const bool isLed = !there.value().empty() && keyOf(there.value().front().values[back]) == key;
    if (leads == isLed) return {};
    return leads ? rewriteRow(session, *toOne.entity, key, std::span(&place, 1))
                 : rewriteRow(session, *toOne.destination, partner, std::span(&back, 1));
}

Result<void> SaveOperation::prepareDeletionsAnew(StoreSession& session) {
    for (ManagedObject* object : m_stale) {
        if (auto prepared = prepareDeletionAnew(session, *object); !prepared) return prepared;
    }
    return {};
}

Result<void> SaveOperation::prepareDeletionAnew(StoreSession& session, ManagedObject& object) {
    auto read = readRow(session, object.entity(), stateOf(object).key);
    if (!read) return read.error();
    if (read.value().empty()) return {};  // removed by somebody else
    ObjectState& state = stateOf(object);
    state.version = read.value().front().version;
    for (const RelationshipDescription& relationship : object.entity().relationships()) {
        if (relationship.toMany) {
            ManagedObject* owner = &object;
            if (auto loaded = m_context.loadLinks(std::span(&owner, 1), relationship); !loaded) return loaded;
        } else {
            state.values()[placeOf(relationship)] = read.value().front().values[placeOf(relationship)];
        }
    }
    std::vector<ObjectRef> cascade;
    m_context.applyDeleteRules(object, cascade);
    for (const ObjectRef& next : cascade) m_context.deleteObject(*next);
    return {};
}

}  // namespace velkor::NS
