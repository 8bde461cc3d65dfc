#pragma once

#include <VelkorSync/ManagedObjectContext.h>
#include <VelkorSync/PersistentStoreCoordinator.h>
#include <VelkorSync/VLKSyncController.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "examples/notes/Account.h"
#include "examples/notes/DirectoryLock.h"
#include "examples/notes/Options.h"
#include "examples/notes/Preferences.h"

namespace notes {

inline constexpr const char* appId = "org.velkor.notes";

/// One installation of the notebook on this machine: its directory, the store in it, the kept account and the sync controller.
/// Main thread only; one a process.
class Installation {
public:
    /// Makes the directory when it is missing and waits up to 5 s for another process to leave it. Raises CommandError.
    explicit Installation(const Options& options);
    ~Installation();

    const Options& options() const noexcept { return m_options; }
    std::filesystem::path path(const char* name) const { return m_options.data / name; }
    DirectoryLock& lock() noexcept { return m_lock; }

    velkor::NS::ManagedObjectContext& context() noexcept { return *m_context; }
    velkor::VLKSyncController& controller() noexcept { return *m_controller; }
    Preferences& preferences() noexcept { return *m_preferences; }

    std::optional<Account>& account() noexcept { return m_account; }
    /// The kept account; raises CommandError when there is none.
    const Account& requireAccount() const;
    /// Gives the controller the kept account's credentials and lets it observe the preferences. Raises CommandError when there is
    /// none.
    void useAccount();
    void keepAccount(std::string email, std::string password);
    void forgetAccount();

    /// Saves the store once, waits until the controller has taken the changes in, and saves the sync state. Raises CommandError;
    /// then nothing was changed.
    void saveStore();
    /// Reads the sync state and the preferences; damaged files are set aside.
    void loadState();
    /// Takes in what other runs of the program changed: account, sync state and preferences. The controller holds no pending
    /// changes. Raises CommandError when no account is kept any more.
    void reload();

private:
    void openStore();
    void makeController();
    std::string serverURL() const;
    std::optional<std::string> apiKey() const;

    Options m_options;
    DirectoryLock m_lock;
    std::optional<Account> m_account;
    std::shared_ptr<velkor::NS::PersistentStoreCoordinator> m_coordinator;
    std::shared_ptr<velkor::NS::ManagedObjectContext> m_context;
    velkor::VLKSyncController* m_controller = nullptr;
    std::optional<Preferences> m_preferences;
};

/// Runs the main loop until everything queued on it so far has run.
void drainMainQueue();

}  // namespace notes
