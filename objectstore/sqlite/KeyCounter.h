// Numbers that are given out once and never again. Internal to the object store.
#pragma once

#include <cstdint>
#include <string>

#include "objectstore/sqlite/Connection.h"

namespace velkor::NS::sqlite {

/// Hands out the keys of one table (or the sequence numbers of the history) while nobody else writes to the file. A table's next
/// number is one above its highest; only where that would give a number out again (the highest row is removed, or numbers are
/// reserved) is a floor written to the counters table, so that saves which merely insert write nothing more than their rows.
class KeyCounter {
public:
    /// What is counted. Outlives its counters.
    struct Source {
        /// `table` and `column` as in SQL.
        Source(std::string counterName, const std::string& table, const std::string& column);
        std::string name;
        std::string loadSQL;
    };
    explicit KeyCounter(const Source& source) noexcept : m_source(&source) {}

    /// Takes the next number.
    Result<std::int64_t> take(Connection& connection);
    /// Takes so many numbers for good; returns the first.
    Result<std::int64_t> reserve(Connection& connection, std::int64_t count);
    /// To be called before the row of this number is removed.
    Result<void> willRemove(Connection& connection, std::int64_t number);
    /// A number was used that did not come from here.
    void used(std::int64_t number) noexcept;
    /// The number that comes next.
    Result<std::int64_t> next(Connection& connection);
    /// The file may hold other numbers now.
    void forget() noexcept { m_next = m_floor = 0; }

private:
    Result<void> load(Connection& connection);
    Result<void> writeFloor(Connection& connection);

    const Source* m_source;
    std::int64_t m_next = 0;  // 0: not read yet
    std::int64_t m_floor = 0;
};

}  // namespace velkor::NS::sqlite
