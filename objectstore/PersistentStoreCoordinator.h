#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "objectstore/History.h"
#include "objectstore/ManagedObjectModel.h"
#include "platform/base/Export.h"
#include "platform/base/Object.h"
#include "platform/base/Result.h"

namespace velkor::NS {

class StoreSession;

/// Codes of the store's errors (domain: PlatformErrorDomain). The description says what is wrong with which file.
namespace StoreError {
inline constexpr std::int64_t notAStore = 134000;          // damaged, or a file of another kind
inline constexpr std::int64_t incompatibleModel = 134100;  // of the file, and no migration can be inferred; the file is untouched
inline constexpr std::int64_t diskFull = 134200;
inline constexpr std::int64_t readOnly = 134201;
inline constexpr std::int64_t busy = 134202;  // locked by another process for longer than the busy time-out
inline constexpr std::int64_t ioFailure = 134203;
inline constexpr std::int64_t validation = 134300;     // a value that cannot be stored, or a required one missing
inline constexpr std::int64_t mergeConflict = 134400;  // with the error merge policy
inline constexpr std::int64_t deleteDenied = 134500;   // a delete rule forbids it
inline constexpr std::int64_t badRequest = 134600;     // unknown entity or property in a fetch or a watch
inline constexpr std::int64_t noSuchObject = 134700;   // no row for an identifier
}  // namespace StoreError

struct StoreOptions {
    bool migrateAutomatically = true;
    /// Keep persistent history.
    bool history = false;
    /// Attributes whose values history rows carry.
    std::vector<std::string> historyKeptAttributes;
    double busyTimeoutSeconds = 5;
    /// SQLite durability of each save: false NORMAL (a kill loses nothing, a power cut may lose the last saves), true FULL.
    bool fullSync = false;
};

/// A model over one SQLite file, shared by any number of contexts on any threads. Pools connections and prepared statements.
class VELKOR_EXPORT PersistentStoreCoordinator : public Object {
public:
    /// Opens (creates, migrates) the file.
    static Result<std::shared_ptr<PersistentStoreCoordinator>> open(std::shared_ptr<const ManagedObjectModel> model,
                                                                    const std::filesystem::path& file,
                                                                    const StoreOptions& options = {});
    ~PersistentStoreCoordinator() override;

    const ManagedObjectModel& managedObjectModel() const noexcept;
    const std::filesystem::path& file() const noexcept;
    const StoreOptions& options() const noexcept;

    /// Makes everything committed so far survive a power cut: one fsync of the log when something is new, else nothing.
    Result<void> makeDurable();

    // Persistent history, kept since any opening of the file turned it on. Before that: no rows, sequence 0.
    bool keepsHistory() const noexcept;
    /// Starts keeping history in a store that was opened without it; stays on for the file.
    Result<void> enableHistory(std::vector<std::string> keptAttributes);
    Result<std::int64_t> newestHistorySequence() const;
    /// Rows above `sequence`, oldest first, handed out one by one; `wanted` is asked first about rows that belong together, so
    /// that others need not be read.
    Result<void> historyAfter(std::int64_t sequence, const std::function<void(HistoryRow&&)>& handle,
                              const std::function<bool(const HistoryHead&)>& wanted = {}) const;
    /// Removes rows up to and including `sequence`.
    Result<void> purgeHistory(std::int64_t sequence);
    /// The flag that history rows of this process carry from now on (HistoryRow::marked); true at opening.
    void setHistoryMark(bool marked) noexcept;
    /// This opening's value of HistoryRow::process.
    const std::string& historyProcess() const noexcept;

    /// What a watch heeds: insertions and deletions of an entity's objects, and changes of these attributes.
    struct Watched {
        std::string entity;
        std::vector<std::string> attributes;
    };
    /// Declares a watch under a name, in the file, so that every process heeds it.
    Result<void> watch(std::string_view name, const std::vector<Watched>& watched);
    /// A stamp that differs whenever a save of any process has made what is watched another since; none when the name was never
    /// declared. No query when nobody has committed since the last call; the first call after a save that moved the stamp writes
    /// to the file, so it may wait for other writers, and fail.
    Result<std::optional<std::int64_t>> watchStamp(std::string_view name) const;
    /// A value that the owner of a watch remembers, valid while the stamp stays; in memory only. Any thread.
    void rememberValue(std::string_view name, std::int64_t stamp, Value value);
    /// nil when nothing is remembered or the stamp has moved.
    Value rememberedValue(std::string_view name) const;

    /// For contexts: a connection of the pool, given back when the session is destroyed.
    Result<std::unique_ptr<StoreSession>> session() const;

private:
    PersistentStoreCoordinator();
    struct State;
    std::unique_ptr<State> m_state;
};

}  // namespace velkor::NS
