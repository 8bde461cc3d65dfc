#include "objectstore/sqlite/HistoryTable.h"

#include "objectstore/sqlite/RowReader.h"
#include "objectstore/sqlite/StoreFailure.h"

namespace velkor::NS::sqlite {

namespace {

constexpr int firstKeptColumn = 8;

Value valueAsStored(const Statement& row, int place) {
    switch (row.type(place)) {
        case SQLITE_INTEGER:
            return Value(row.integer(place));
        case SQLITE_FLOAT:
            return Value(row.real(place));
        case SQLITE_TEXT:
            return Value(row.text(place));
        case SQLITE_BLOB:
            return Value(Data::copyOf(row.bytes(place)));
        default:
            return {};
    }
}

Value keptValue(const Statement& row, int place, const EntityDescription* entity, const std::string& name,
                const ManagedObjectModel& model) {
    const AttributeDescription* attribute = entity ? entity->attributeNamed(name) : nullptr;
    Column column;
    column.content = Column::Content::attribute;
    Value value;
    if (attribute) {
        column.type = attribute->type;
        if (readValue(row, place, column, model, value)) return value;
    }
    return valueAsStored(row, place);
}

}  // namespace

KeyCounter historyCounter() noexcept {
    static const KeyCounter::Source source("history sequence", "history", "sequence");
    return KeyCounter(source);
}

Result<void> readHistory(Connection& connection, const StoreLayout& layout, const ManagedObjectModel& model,
                         std::int64_t sequence, const std::function<void(HistoryRow&&)>& handle) {
    std::string sql = "SELECT sequence,time,entity,object,kind,author,process,marked";
    for (const std::string& name : layout.keptAttributes) sql += ',' + quoted("k_", name);
    auto lease = connection.prepare(sql + " FROM history WHERE sequence>? ORDER BY sequence");
    if (!lease) return lease.error();
    lease.value()->bind(1, sequence);
    return connection.eachRow(*lease.value(), [&](Statement& statement) -> Result<void> {
        HistoryRow row;
        row.sequence = statement.integer(0);
        row.time = Date(statement.real(1));
        row.entityName = statement.text(2);
        row.key = statement.integer(3);
        const std::int64_t kind = statement.integer(4);
        if (kind < 0 || kind > static_cast<std::int64_t>(ChangeKind::deleted)) {
            return storeFileError(StoreError::notAStore, connection.file(), "is damaged: a row of its history cannot be read");
        }
        row.kind = static_cast<ChangeKind>(kind);
        row.author = statement.text(5);
        row.process = statement.text(6);
        row.marked = statement.integer(7) != 0;
        const EntityDescription* entity = model.entityNamed(row.entityName);
        int place = firstKeptColumn;
        for (const std::string& name : layout.keptAttributes) {
            Value value = keptValue(statement, place++, entity, name, model);
            if (!value.isNil()) row.kept.set(name, std::move(value));
        }
        handle(std::move(row));
        return {};
    });
}

Result<void> purgeHistoryRows(Connection& connection, std::int64_t sequence) {
    KeyCounter counter = historyCounter();
    if (auto kept = counter.willRemove(connection, sequence); !kept) return kept;
    return connection.run("DELETE FROM history WHERE sequence<=?", [&](Statement& statement) { statement.bind(1, sequence); });
}

}  // namespace velkor::NS::sqlite
