// What a store file says of itself beside its objects: the model, whether it keeps history, what is watched. Internal.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "objectstore/PersistentStoreCoordinator.h"
#include "objectstore/sqlite/Connection.h"
#include "objectstore/sqlite/StoreSchema.h"

namespace velkor::NS::sqlite {

inline constexpr std::int32_t applicationID = 0x564F424A;  // "VOBJ"

/// A declared watch, made ready for the model at hand.
class Watch {
public:
    Watch(std::string name, const std::vector<PersistentStoreCoordinator::Watched>& watched, const ManagedObjectModel& model);
    const std::string& name() const noexcept { return m_name; }
    bool operator==(const Watch&) const = default;
    bool heeds(std::size_t entity, ChangeKind kind, std::span<const std::size_t> changedAttributes) const noexcept;

private:
    struct Attributes {
        bool watched = false;
        std::vector<bool> changes;  // by the attribute's place
        bool operator==(const Attributes&) const = default;
    };
    std::string m_name;
    std::vector<Attributes> m_entities;  // by the entity's place
};

/// One state of the file's settings. Immutable; every change of one of them raises the file's generation (its user_version).
struct StoreLayout {
    std::int64_t generation = 0;
    std::string modelText;
    bool keepsHistory = false;
    std::vector<std::string> keptAttributes;
    /// What the history needs of an entity.
    struct HistoryEntity {
        struct Kept {
            SharedText name;
            std::size_t place;  // of the attribute
        };
        Value name;
        std::vector<Kept> kept;
    };
    std::vector<HistoryEntity> historyEntities;  // by the entity's place
    std::vector<Watch> watches;

    static Result<std::shared_ptr<const StoreLayout>> read(Connection& connection, const ManagedObjectModel& model);
};

/// The model's property list as the file keeps it.
Result<std::string> modelText(const ManagedObjectModel& model);

// Writing, within a transaction.
/// The tables that every store has.
Result<void> createOwnTables(Connection& connection);
Result<void> raiseGeneration(Connection& connection);
Result<void> writeModelText(Connection& connection, const std::string& text);
Result<void> writeHistorySettings(Connection& connection, const std::vector<std::string>& keptAttributes);
Result<void> writeWatch(Connection& connection, std::string_view name,
                        const std::vector<PersistentStoreCoordinator::Watched>& watched);

}  // namespace velkor::NS::sqlite
