// One opened store file: its connections, its schema and its settings. Internal to the object store.
#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "objectstore/PersistentStoreCoordinator.h"
#include "objectstore/sqlite/Connection.h"
#include "objectstore/sqlite/StoreLayout.h"
#include "objectstore/sqlite/StoreSchema.h"

namespace velkor::NS::sqlite {

/// Shared by the coordinator and its sessions. Any thread.
class StoreFile {
public:
    /// Opens the file; creates it when it is missing or empty; migrates it when its model is another.
    static Result<std::shared_ptr<StoreFile>> open(std::shared_ptr<const ManagedObjectModel> model,
                                                   const std::filesystem::path& path, const StoreOptions& options);

    const std::filesystem::path& path() const noexcept { return m_path; }
    const StoreOptions& options() const noexcept { return m_options; }
    const StoreSchema& schema() const noexcept { return m_schema; }
    const std::shared_ptr<const ManagedObjectModel>& model() const noexcept { return m_model; }
    /// Unique for this opening of the file.
    const std::string& process() const noexcept { return m_process; }

    std::shared_ptr<const StoreLayout> layout() const;
    /// In a transaction: the layout as the file has it now, read anew only when its generation has moved. Fails when another
    /// process has migrated the file to another model.
    Result<std::shared_ptr<const StoreLayout>> currentLayout(Connection& connection);

    /// Starts keeping history, or keeps other attributes from now on.
    Result<void> keepHistory(const std::vector<std::string>& keptAttributes);
    Result<void> declareWatch(std::string_view name, const std::vector<PersistentStoreCoordinator::Watched>& watched);

    Result<std::unique_ptr<Connection>> takeConnection();
    void giveBack(std::unique_ptr<Connection> connection) noexcept;

    bool historyMark() const noexcept { return m_historyMark.load(std::memory_order_relaxed); }
    void setHistoryMark(bool marked) noexcept { m_historyMark.store(marked, std::memory_order_relaxed); }

private:
    StoreFile(std::shared_ptr<const ManagedObjectModel> model, std::filesystem::path path, StoreOptions options);
    Result<std::unique_ptr<Connection>> connect() const;
    Result<void> prepareFile(Connection& connection, const std::string& wantedModel);
    Result<bool> holdsStore(Connection& connection) const;
    Error migratedByAnother() const;
    Result<void> createStore(Connection& connection, const std::string& wantedModel);
    Result<void> bringUpToDate(Connection& connection, const std::string& wantedModel);
    Result<void> changeLayout(const std::function<Result<void>(Connection&)>& change);

    const std::shared_ptr<const ManagedObjectModel> m_model;
    const std::filesystem::path m_path;
    const StoreOptions m_options;
    const StoreSchema m_schema;
    const std::string m_process;
    std::atomic<bool> m_historyMark = true;
    mutable std::mutex m_mutex;
    std::vector<std::unique_ptr<Connection>> m_idle;  // guarded by m_mutex
    std::shared_ptr<const StoreLayout> m_layout;      // guarded by m_mutex
};

}  // namespace velkor::NS::sqlite
