#include "objectstore/sqlite/CommitMonitor.h"

#include "objectstore/sqlite/Transaction.h"
#include "platform/base/DurableStep.h"

namespace velkor::NS::sqlite {

Result<std::int64_t> CommitMonitor::dataVersion() {
    if (!m_connection) {
        auto connection = m_store->takeConnection();
        if (!connection) return connection.error();
        m_connection = std::move(connection).value();
    }
    return m_connection->integer("PRAGMA data_version");
}

Result<void> CommitMonitor::makeDurable() {
    if (m_store->options().fullSync) return {};  // every commit has been
    const std::lock_guard lock(m_mutex);
    auto version = dataVersion();
    if (!version) return version.error();
    if (m_durableVersion == version.value()) return {};
    durableStep("store fsync");
    if (auto synced = m_connection->syncLog(); !synced) return synced;
    m_durableVersion = version.value();
    return {};
}

Result<void> CommitMonitor::readStamps() {
    auto version = dataVersion();
    if (!version) return version.error();
    if (m_stampsVersion == version.value()) return {};
    auto lease = m_connection->prepare("SELECT name,stamp,seen FROM watches");
    if (!lease) return lease.error();
    auto read = m_connection->eachRow(*lease.value(), [&](Statement& row) {
        m_stamps[std::string(row.text(0))] = {row.integer(1), row.integer(1) == row.integer(2)};
    });
    if (!read) return read;
    // Read before the stamps: a commit in between is found next time.
    m_stampsVersion = version.value();
    return {};
}

Result<std::optional<std::int64_t>> CommitMonitor::watchStamp(std::string_view name) {
    const std::lock_guard lock(m_mutex);
    if (auto read = readStamps(); !read) return read.error();
    const auto found = m_stamps.find(name);
    if (found == m_stamps.end()) return std::optional<std::int64_t>();
    if (!found->second.seen) {
        auto marked = markSeen(name);
        if (!marked) return marked.error();
        found->second = {marked.value(), true};
    }
    return std::optional(found->second.value);
}

Result<std::int64_t> CommitMonitor::markSeen(std::string_view name) {
    auto taken = m_store->takeConnection();
    if (!taken) return taken.error();
    std::unique_ptr<Connection> connection = std::move(taken).value();
    std::int64_t stamp = 0;
    auto marked = inTransaction(*connection, [&]() -> Result<void> {
        auto lease = connection->prepare("UPDATE watches SET seen=stamp WHERE name=? RETURNING stamp");
        if (!lease) return lease.error();
        lease.value()->bindText(1, name);
        return connection->eachRow(*lease.value(), [&](Statement& row) { stamp = row.integer(0); });
    });
    m_store->giveBack(std::move(connection));
    if (!marked) return marked.error();
    return stamp;
}

void CommitMonitor::rememberValue(std::string_view name, std::int64_t stamp, Value value) {
    const std::lock_guard lock(m_mutex);
    m_remembered.insert_or_assign(std::string(name), Remembered{stamp, std::move(value)});
}

Value CommitMonitor::rememberedValue(std::string_view name) {
    const std::lock_guard lock(m_mutex);
    const auto found = m_remembered.find(name);
    if (found == m_remembered.end() || !readStamps().ok()) return {};
    const auto stamp = m_stamps.find(name);
    return stamp != m_stamps.end() && stamp->second.value == found->second.stamp ? found->second.value : Value();
}

}  // namespace velkor::NS::sqlite
