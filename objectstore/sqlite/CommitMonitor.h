// What has been committed: durability, the stamps of the watches. Internal to the object store.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "objectstore/sqlite/Connection.h"
#include "objectstore/sqlite/StoreFile.h"

namespace velkor::NS::sqlite {

/// Follows the commits of all connections and processes through one connection that never writes: SQLite's data_version moves
/// with every commit of any other. Any thread.
class CommitMonitor {
public:
    explicit CommitMonitor(std::shared_ptr<StoreFile> store) : m_store(std::move(store)) {}

    Result<void> makeDurable();
    Result<std::optional<std::int64_t>> watchStamp(std::string_view name);
    void rememberValue(std::string_view name, std::int64_t stamp, Value value);
    Value rememberedValue(std::string_view name);

private:
    struct Stamp {
        std::int64_t value = 0;
        bool seen = false;
    };
    struct Remembered {
        std::int64_t stamp;
        Value value;
    };
    Result<std::int64_t> dataVersion();
    Result<void> readStamps();
    /// Tells all savers that the stamp is known from now on, so that it has to move.
    Result<std::int64_t> markSeen(std::string_view name);

    const std::shared_ptr<StoreFile> m_store;
    std::mutex m_mutex;
    std::unique_ptr<Connection> m_connection;  // all below: guarded by m_mutex
    std::optional<std::int64_t> m_durableVersion;
    std::optional<std::int64_t> m_stampsVersion;
    std::map<std::string, Stamp, std::less<>> m_stamps;
    std::map<std::string, Remembered, std::less<>> m_remembered;
};

}  // namespace velkor::NS::sqlite
