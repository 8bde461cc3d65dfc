#pragma once

#include <filesystem>
#include <memory>

#include "objectstore/ManagedObjectContext.h"
#include "objectstore/PersistentStoreCoordinator.h"
#include "platform/base/Export.h"

namespace velkor {

/// Opens the host's store with the first object model ("momd") among the library's resources. One per process, made on the main
/// thread on first use, never released.
class VELKOR_EXPORT PersistentStoreSingleton {
public:
    /// The kept instance, opened over this SQLite file when there is none yet; a later call with another path returns the first
    /// one. Null when no object model is found.
    static PersistentStoreSingleton* globalInstanceForDataAtPath(const std::filesystem::path& path);
    /// The kept instance. There is no default place for the file, so without one an assertion fails.
    static PersistentStoreSingleton* globalInstance();
    static PersistentStoreSingleton* sharedInstance() { return globalInstance(); }
    /// A new context of the global instance.
    static std::shared_ptr<NS::ManagedObjectContext> globalNewContext();
    static std::shared_ptr<NS::ManagedObjectContext> globalMainThreadContext();

    /// An instance of its own. Main thread only. Null when no object model is found; a directory that cannot be made or a store
    /// that cannot be added fails an assertion after lines in the system log.
    static std::unique_ptr<PersistentStoreSingleton> initWithDatabasePath(const std::filesystem::path& path);

    const std::shared_ptr<NS::PersistentStoreCoordinator>& coordinator() const noexcept { return m_coordinator; }
    /// A context attached to the coordinator; the caller owns it.
    std::shared_ptr<NS::ManagedObjectContext> newContext() const;
    std::shared_ptr<NS::ManagedObjectContext> newcontextWithConcurrencyType(NS::ConcurrencyType type) const;
    const std::shared_ptr<NS::ManagedObjectContext>& mainThreadContext() const noexcept { return m_mainThreadContext; }
    /// Replaces the main-thread context. Main thread only, and only while it has no unsaved changes (assertions).
    void setMainThreadContextConcurrencyType(NS::ConcurrencyType type);
    /// For the host's use; the library never sets it.
    const std::shared_ptr<NS::ManagedObjectContext>& mainContext() const noexcept { return m_mainContext; }
    void setMainContext(std::shared_ptr<NS::ManagedObjectContext> context) noexcept { m_mainContext = std::move(context); }
    /// "Metadata/CoreData/Velkor" below the user's caches directory (below the temporary directory where there is none).
    std::filesystem::path externalRecordsDirectory() const;

private:
    explicit PersistentStoreSingleton(std::shared_ptr<NS::PersistentStoreCoordinator> coordinator);
    static std::filesystem::path dataDirectoryPath();
    std::shared_ptr<NS::PersistentStoreCoordinator> m_coordinator;
    std::shared_ptr<NS::ManagedObjectContext> m_mainThreadContext;
    std::shared_ptr<NS::ManagedObjectContext> m_mainContext;
};

}  // namespace velkor
