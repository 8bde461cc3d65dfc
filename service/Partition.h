#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "service/Database.h"

namespace velkor::service {

/// One user's data of one app: its row, as read at the start of a transaction.
struct Partition {
    std::int64_t id = 0;
    std::int64_t highest = 0;      // highest number ever given out
    std::int64_t epoch = 0;        // counts what moves numbers back, such as a rollback
    std::int64_t nextObject = 1;   // number of the next object
    std::string hash;              // the SYNC_HASH; empty when it must be computed
    std::int64_t changesLock = 0;  // serial of the lock under which the last changes request came
    /// The instance whose latest request is provisional, or 0; its numbers lie above `provisionalAbove`, and the objects that it
    /// made have numbers from `provisionalObject` on.
    std::int64_t provisional = 0;
    std::int64_t provisionalAbove = 0;
    std::int64_t provisionalObject = 0;
    /// Bytes of parts that are kept but not taken in yet (KeptParts). While there are any, what is provisional is the last of
    /// them.
    std::int64_t keptParts = 0;

    bool operator==(const Partition&) const = default;

    static std::optional<Partition> find(Connection& connection, std::int64_t user, std::string_view app);
    /// The partition with this id, if it is the user's.
    static std::optional<Partition> find(Connection& connection, std::int64_t user, std::int64_t id);
    /// The user's partition of the app, made when missing.
    static Partition obtain(Connection& connection, std::int64_t user, std::string_view app);
    void store(Connection& connection) const;

    /// Makes what is provisional final.
    void settle(Connection& connection);
    /// The same for all of a user's apps.
    static void settleAll(Connection& connection, std::int64_t user);
};

/// An installation that has sent a changes request for the partition.
struct Instance {
    std::int64_t id = 0;            // 0 is the service itself
    std::int64_t lastNumber = 0;    // of its newest transaction
    std::int64_t batchHighest = 0;  // HIGHEST_XACTION of its newest request with transactions
    std::int64_t answered = 0;      // HIGHEST_XACTION of its latest changes answer
    /// HIGHEST_XACTION of the answer to its latest listing, if that sent something, or 0; and whether a changes request has come
    /// with that number, which proves that the answer was written.
    std::int64_t listing = 0;
    bool proved = false;
    std::int64_t askedUnder = 0;  // serial of the lock under which it was asked for guids and has not been judged, or 0
    bool withholds = false;       // guids may be withheld by it; then `hash` is its SYNC_HASH while the partition's is `hashOf`
    std::string hash, hashOf;

    bool operator==(const Instance&) const = default;

    static std::optional<Instance> find(Connection& connection, std::int64_t partition, std::string_view name);
    static std::optional<Instance> find(Connection& connection, std::int64_t id);
    static Instance add(Connection& connection, std::int64_t partition, std::string_view name);
    void store(Connection& connection) const;
    /// Whether transactions of it that were rolled back wait to come again.
    bool hasRolled(Connection& connection) const;
    /// The highest number that any other instance, or the service, has written.
    std::int64_t highestOfOthers(Connection& connection, std::int64_t partition) const;
};

/// The name under which the service's own transactions (expiries) are counted; clients' names are never empty.
inline constexpr std::string_view serviceInstanceName = "";

}  // namespace velkor::service
