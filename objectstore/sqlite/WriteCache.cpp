#include "objectstore/sqlite/WriteCache.h"

#include "objectstore/sqlite/HistoryTable.h"

namespace velkor::NS::sqlite {

WriteCache::Entity::Entity(const EntityTable& table) : links(table.entity->relationships().size()), keys(table.keys) {}

WriteCache::WriteCache(const StoreSchema& schema) : m_sequences(historyCounter()) {
    m_entities.reserve(schema.tableCount());
    for (std::size_t i = 0; i < schema.tableCount(); ++i) m_entities.emplace_back(schema.table(i));
}

void WriteCache::beginTransaction(const Connection& connection) {
    if (m_version == connection.dataVersion()) return;
    for (Entity& entity : m_entities) entity.keys.forget();
    m_sequences.forget();
    layout = nullptr;
    movedStamps.clear();
}

}  // namespace velkor::NS::sqlite
