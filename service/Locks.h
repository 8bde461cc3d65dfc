#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "service/Accounts.h"
#include "service/Arrivals.h"
#include "service/Database.h"
#include "service/HttpMessage.h"

namespace velkor::service {

/// A user's lock as its row says.
struct Lock {
    std::int64_t serial = 0;  // counts the grants
    bool held = false;
    std::string app;
    std::string instance;
    std::int64_t since = 0;          // milliseconds since 1970
    std::int64_t active = 0;         // when the holder was last heard of, a sixteenth of a lease late at most
    std::int64_t transferUntil = 0;  // the holder counts as active until then, because it moves a blob; 0 for none

    bool isHeldBy(std::string_view name) const { return held && instance == name; }
};

/// The locks: one instance a user, until it gives the lock back, or until another one asks after the holder was silent for a
/// lease. Any thread.
class Locks {
public:
    using Clock = std::function<std::int64_t()>;  // milliseconds since 1970

    Locks(Database& database, std::int64_t leaseSeconds, Clock now = systemMilliseconds);

    /// GET client/v1.5/APP/INSTANCE/lock.json; makes what is provisional final.
    Response lock(const User& user, std::string_view app, std::string_view instance);
    /// GET client/APP/INSTANCE/unlock.json; the same. Answers 200 as well when the instance does not hold the lock.
    Response unlock(const User& user, std::string_view instance);

    /// The lock, if this instance holds it, in the open transaction, which writes; the holder counts as active.
    std::optional<Lock> heldBy(Connection& connection, std::int64_t user, std::string_view instance);
    /// The lock, whoever holds it, in the open transaction, which writes; the holder counts as active.
    std::optional<Lock> held(Connection& connection, std::int64_t user);
    /// The same lock without changing anything.
    static std::optional<Lock> find(Connection& connection, std::int64_t user);
    /// What a request that needs the lock is answered without it.
    static Response refusal(Connection& connection, std::int64_t user);
    /// Notes that the instance was heard of, outside of any transaction.
    void noteActivity(std::int64_t user, std::string_view instance);

    /// A blob's address was issued to the user, in the open transaction, which writes. Moving the blob is no request, so the
    /// lock's holder counts as active until it is heard of again, for 900 s or 8 leases at most.
    void noteTransfer(Connection& connection, std::int64_t user);
    /// The same outside of any transaction.
    void noteTransfer(std::int64_t user);
    /// The blob was moved; in the open transaction, which writes.
    void noteTransferEnd(Connection& connection, std::int64_t user);

    /// While a user has a request on its way in, the user's lock is not taken over.
    Arrivals& arrivals() { return m_arrivals; }

    static std::int64_t systemMilliseconds();

private:
    bool isSilent(const Lock& lock, std::int64_t user) const;
    bool isTouchDue(const Lock& lock) const;
    void touch(Connection& connection, std::int64_t user, const Lock& lock);
    bool isTransferNoteDue(const Lock& lock) const;
    std::int64_t longestTransfer() const;
    /// Counts the holder, whoever it is, as active.
    void keepAlive(std::int64_t user);

    Database& m_database;
    const std::int64_t m_lease;  // milliseconds
    const Clock m_now;
    Arrivals m_arrivals;  // last: its thread uses the rest
};

}  // namespace velkor::service
