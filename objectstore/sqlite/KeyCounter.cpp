#include "objectstore/sqlite/KeyCounter.h"

#include <algorithm>

namespace velkor::NS::sqlite {

KeyCounter::Source::Source(std::string counterName, const std::string& table, const std::string& column)
    : name(std::move(counterName)),
      loadSQL("SELECT coalesce((SELECT max(" + column + ") FROM " + table +
              "),0),coalesce((SELECT next FROM counters WHERE name=?),1)") {}

Result<void> KeyCounter::load(Connection& connection) {
    if (m_next != 0) return {};
    auto lease = connection.prepare(m_source->loadSQL);
    if (!lease) return lease.error();
    Statement& statement = *lease.value();
    statement.bindText(1, m_source->name);
    const int code = statement.step();
    if (code != SQLITE_ROW) return connection.failure(code);
    m_floor = statement.integer(1);
    m_next = std::max(statement.integer(0) + 1, m_floor);
    return {};
}

Result<void> KeyCounter::writeFloor(Connection& connection) {
    m_floor = m_next;
    return connection.run("INSERT INTO counters(name,next) VALUES(?,?) ON CONFLICT(name) DO UPDATE SET next=excluded.next",
                          [&](Statement& statement) {
                              statement.bindText(1, m_source->name);
                              statement.bind(2, m_next);
                          });
}

Result<std::int64_t> KeyCounter::next(Connection& connection) {
    if (auto loaded = load(connection); !loaded) return loaded.error();
    return m_next;
}

Result<std::int64_t> KeyCounter::take(Connection& connection) {
    if (auto loaded = load(connection); !loaded) return loaded.error();
    return m_next++;
}

Result<std::int64_t> KeyCounter::reserve(Connection& connection, std::int64_t count) {
    if (auto loaded = load(connection); !loaded) return loaded.error();
    const std::int64_t first = m_next;
    m_next += count;
    if (auto written = writeFloor(connection); !written) return written.error();
    return first;
}

Result<void> KeyCounter::willRemove(Connection& connection, std::int64_t number) {
    if (auto loaded = load(connection); !loaded) return loaded;
    return number < m_floor ? Result<void>() : writeFloor(connection);
}

void KeyCounter::used(std::int64_t number) noexcept { m_next = m_next == 0 ? 0 : std::max(m_next, number + 1); }

}  // namespace velkor::NS::sqlite
