// What a connection keeps between the transactions that write through it. Internal to the object store.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "objectstore/sqlite/Connection.h"
#include "objectstore/sqlite/KeyCounter.h"
#include "objectstore/sqlite/StoreLayout.h"
#include "objectstore/sqlite/StoreSchema.h"

namespace velkor::NS::sqlite {

/// Prepared statements, and knowledge of the file that stays true as long as nobody else writes to it: so a small save need not
/// ask for it anew. Used by the one session that has borrowed the connection.
class WriteCache {
public:
    explicit WriteCache(const StoreSchema& schema);

    /// The statements of one entity's rows, prepared when first needed.
    struct RowStatements {
        Statement insert;
        Statement touch;  // raises the version only
        Statement update;
        std::vector<std::size_t> updated;  // the columns that `update` writes: objects of one save tend to change alike
    };
    /// Those of a many-to-many relationship's links.
    struct LinkStatements {
        Statement add;
        Statement remove;
    };
    RowStatements& rows(const EntityDescription& entity) noexcept { return m_entities[entity.index()].rows; }
    LinkStatements& links(const RelationshipDescription& relationship) noexcept {
        return m_entities[relationship.entity->index()].links[relationship.index];
    }
    Statement begin, commit, appendHistory;

    /// At the beginning of a transaction: gives up what somebody else's commit may have made untrue.
    void beginTransaction(const Connection& connection);
    /// After a commit: what the transaction has learned stays.
    void committed(const Connection& connection) noexcept { m_version = connection.dataVersion(); }
    /// After a rollback: it does not.
    void rolledBack() noexcept { m_version.reset(); }

    // Known of the file.
    KeyCounter& keys(const EntityDescription& entity) noexcept { return m_entities[entity.index()].keys; }
    KeyCounter& sequences() noexcept { return m_sequences; }
    std::shared_ptr<const StoreLayout> layout;  // null: to be read
    std::vector<bool> movedStamps;              // watches, by place, whose stamp has moved since anybody saw it

private:
    struct Entity {
        explicit Entity(const EntityTable& table);
        RowStatements rows;
        std::vector<LinkStatements> links;  // by the relationship's place
        KeyCounter keys;
    };
    std::vector<Entity> m_entities;
    KeyCounter m_sequences;
    std::optional<std::uint32_t> m_version;  // of the file, when the last transaction ended
};

}  // namespace velkor::NS::sqlite
