#include "objectstore/sqlite/HistoryTable.h"

#include <algorithm>
#include <utility>

#include "objectstore/ManagedObjectID.h"
#include "objectstore/sqlite/RowReader.h"
#include "objectstore/sqlite/StoreFailure.h"
#include "platform/persistence/KeyedArchiver.h"

namespace velkor::NS::sqlite {

namespace {

constexpr std::size_t elementsPerChange = 4;

/// As the history keeps it: an identifier as its text, all else as it is.
Value keptForm(const Value& value) {
    if (value.kind() != Value::Kind::object) return value;
    const auto identifier = value.as<ManagedObjectID>();
    return identifier ? Value(identifier->URIRepresentation()) : value;
}

Value valueOfKeptForm(const Value& kept, const AttributeDescription* attribute, const ManagedObjectModel& model) {
    Value identifier;
    const bool isIdentifier = attribute && attribute->type == AttributeType::objectID && kept.isString();
    return isIdentifier && readObjectID(*kept.asString(), model, identifier) ? identifier : kept;
}

Error damagedHistory(const Connection& connection) {
    return storeFileError(StoreError::notAStore, connection.file(), "is damaged: a row of its history cannot be read");
}

/// The changes of a run, as many as it has numbers.
Result<Array> changesOf(const Connection& connection, std::string_view archive, std::int64_t first, std::int64_t last) {
    if (first < 1 || last < first) return damagedHistory(connection);
    const auto count = static_cast<std::uint64_t>(last - first) + 1;
    auto root = unarchiveObjectWithData(archive);
    const Array* changes = root ? root.value().asArray() : nullptr;
    if (!changes || changes->size() % elementsPerChange != 0 || changes->size() / elementsPerChange != count)
        return damagedHistory(connection);
    return *changes;
}

class RunReader {
public:
    RunReader(const ManagedObjectModel& model, const HistoryHead& head, const Array& changes)
        : m_model(model), m_head(head), m_changes(changes) {}

    /// False: damaged.
    bool read(std::int64_t sequence, HistoryRow& row) const {
        const auto place = static_cast<std::size_t>(sequence - m_head.first) * elementsPerChange;
        const auto entity = m_changes[place].asString();
        const auto key = m_changes[place + 1].asInteger();
        const auto kind = m_changes[place + 2].asInteger();
        const Dictionary* kept = m_changes[place + 3].asDictionary();
        if (!entity || !key || !kept || !kind || *kind < 0 || *kind > static_cast<std::int64_t>(ChangeKind::deleted))
            return false;
        row.sequence = sequence;
        row.time = m_head.time;
        row.entityName = *entity;
        row.key = *key;
        row.kind = static_cast<ChangeKind>(*kind);
        row.author = m_head.author;
        row.process = m_head.process;
        row.marked = m_head.marked;
        const EntityDescription* described = m_model.entityNamed(*entity);
        for (const auto& [name, value] : *kept)
            row.kept.set(name, valueOfKeptForm(value, described ? described->attributeNamed(name) : nullptr, m_model));
        return true;
    }

private:
    const ManagedObjectModel& m_model;
    const HistoryHead& m_head;
    const Array& m_changes;
};

/// Takes the changes up to the number out of the run that it ends in.
Result<void> purgeWithinRun(Connection& connection, std::int64_t sequence) {
    auto lease = connection.prepare("SELECT last,first,changes FROM history WHERE last>?1 ORDER BY last LIMIT 1");
    if (!lease) return lease.error();
    lease.value()->bind(1, sequence);
    const int code = lease.value()->step();
    if (code == SQLITE_DONE) return {};
    if (code != SQLITE_ROW) return connection.failure(code);
    const std::int64_t last = lease.value()->integer(0);
    const std::int64_t first = lease.value()->integer(1);
    if (first > sequence) return {};
    auto changes = changesOf(connection, lease.value()->bytes(2), first, last);
    if (!changes) return changes.error();
    lease.value().end();
    Array rest;
    for (auto i = static_cast<std::size_t>(sequence + 1 - first) * elementsPerChange; i < changes.value().size(); ++i)
        rest.push_back(changes.value()[i]);
    const Data archive = archivedDataWithRootObject(rest);
    return connection.run("UPDATE history SET first=?,changes=? WHERE last=?", [&](Statement& statement) {
        statement.bind(1, sequence + 1);
        statement.bindBytes(2, archive.view());
        statement.bind(3, last);
    });
}

}  // namespace

KeyCounter historyCounter() noexcept {
    static const KeyCounter::Source source("history sequence", "history", "last");
    return KeyCounter(source);
}

bool HistoryRun::takes(const SaveStamp& save, bool marked) const noexcept {
    return m_count < mostChanges && marked == m_marked && save.time == m_save.time && save.author == m_save.author;
}

void HistoryRun::add(std::int64_t sequence, const SaveStamp& save, bool marked, const StoreLayout::HistoryEntity& entity,
                     RowKey key, ChangeKind kind, std::span<const Value> values) {
    if (empty()) {
        m_first = sequence;
        m_save = save;
        m_marked = marked;
    }
    ++m_count;
    Dictionary kept;
    for (const auto& attribute : entity.kept) {
        if (attribute.place < values.size() && values[attribute.place])
            kept.append(attribute.name, keptForm(values[attribute.place]));
    }
    m_changes.push_back(entity.name);
    m_changes.push_back(key);
    m_changes.push_back(static_cast<std::int64_t>(kind));
    m_changes.push_back(std::move(kept));
}

Result<void> HistoryRun::write(Connection& connection, Statement& insert, std::string_view process) {
    const Data archive = archivedDataWithRootObject(m_changes);
    insert.bind(1, m_first + m_count - 1);
    insert.bind(2, m_first);
    insert.bind(3, m_save.time.timeIntervalSince1970());
    insert.bindText(4, m_save.author);
    insert.bindText(5, process);
    insert.bind(6, static_cast<std::int64_t>(m_marked));
    insert.bindBytes(7, archive.view());
    auto run = connection.run(insert);
    insert.clear();
    clear();
    return run;
}

void HistoryRun::clear() noexcept {
    m_count = 0;
    m_changes = {};
}

Result<void> readHistory(Connection& connection, const ManagedObjectModel& model, std::int64_t sequence,
                         const std::function<void(HistoryRow&&)>& handle, const std::function<bool(const HistoryHead&)>& wanted) {
    auto lease =
        connection.prepare("SELECT last,first,time,author,process,marked,changes FROM history WHERE last>? ORDER BY last");
    if (!lease) return lease.error();
    lease.value()->bind(1, sequence);
    return connection.eachRow(*lease.value(), [&](Statement& statement) -> Result<void> {
        HistoryHead head;
        head.last = statement.integer(0);
        head.first = statement.integer(1);
        head.time = Date(statement.real(2));
        head.author = statement.text(3);
        head.process = statement.text(4);
        head.marked = statement.integer(5) != 0;
        if (wanted && !wanted(head)) return {};
        auto changes = changesOf(connection, statement.bytes(6), head.first, head.last);
        if (!changes) return changes.error();
        const RunReader reader(model, head, changes.value());
        for (std::int64_t at = std::max(head.first, sequence + 1); at <= head.last; ++at) {
            HistoryRow row;
            if (!reader.read(at, row)) return damagedHistory(connection);
            handle(std::move(row));
        }
        return {};
    });
}

Result<void> purgeHistoryRows(Connection& connection, std::int64_t sequence) {
    KeyCounter counter = historyCounter();
    if (auto kept = counter.willRemove(connection, sequence); !kept) return kept;
    auto removed =
        connection.run("DELETE FROM history WHERE last<=?", [&](Statement& statement) { statement.bind(1, sequence); });
    return removed ? purgeWithinRun(connection, sequence) : removed;
}

}  // namespace velkor::NS::sqlite
