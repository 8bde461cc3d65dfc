// What a migration does to the tables. Internal to the object store.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "objectstore/sqlite/StoreSchema.h"
#include "platform/base/Result.h"

namespace velkor::NS::sqlite {

/// How the table of an entity that both models have gets from one to the other.
struct EntityStep {
    /// Where a column's values come from.
    struct Source {
        const Column* column;    // of the new table
        std::string expression;  // over the old table; empty: the column is new
        Value fill;              // for rows without a value; nil: none
        bool required = false;   // rows may not be left without a value
    };
    const EntityTable* from;
    const EntityTable* to;
    std::vector<Source> sources;
    bool columnsLost = false;  // the old table has columns or types that the new one has not

    bool changes() const noexcept;
    /// New columns that start empty can simply be added.
    bool onlyAdds() const noexcept;
};

/// A join table that both models have, perhaps under another name or the other way round.
struct JoinStep {
    std::string from;  // unquoted
    std::string to;
    bool swapped = false;
};

struct MigrationPlan {
    std::vector<const EntityTable*> created;
    std::vector<const EntityTable*> dropped;
    std::vector<EntityStep> changed;
    std::vector<JoinStep> joins;

    /// Fails with StoreError::incompatibleModel when the step cannot be inferred.
    static Result<MigrationPlan> infer(const StoreSchema& from, const StoreSchema& to, const std::filesystem::path& file);
};

}  // namespace velkor::NS::sqlite
