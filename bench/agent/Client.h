#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "Sync/VLKSyncController.h"
#include "bench/agent/Workload.h"
#include "objectstore/ManagedObjectContext.h"

namespace agent {

/// One host with a store of notes, notebooks and tags. Failures are raised as std::runtime_error.
class Client {
public:
    struct Settings {
        std::filesystem::path directory;
        std::string serverURL;
        long notesPerSave;
        bool fullSync;
        bool chunking;
    };

    explicit Client(const Settings& settings);

    /// Makes the account that all agents share; one that exists is fine.
    void signUp();
    void prepare(std::size_t notes);
    /// Inserts the prepared notes, so many a save.
    void create();
    /// Changes title and rating of every hundredth note, a save each.
    void change(std::size_t notes);
    /// One whole cycle.
    void sync();
    /// What the store holds: count, hash of the guids, hash of the contents.
    velkor::NS::Dictionary digest();

private:
    void save();
    void captureEverything();

    Settings m_settings;
    std::shared_ptr<velkor::NS::PersistentStoreCoordinator> m_coordinator;
    std::shared_ptr<velkor::NS::ManagedObjectContext> m_context;
    velkor::VLKSyncController* m_controller;
    std::unique_ptr<Workload> m_workload;
    std::vector<std::string> m_noteGuids;
};

}  // namespace agent
