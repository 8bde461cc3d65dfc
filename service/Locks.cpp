#include "service/Locks.h"

#include <algorithm>
#include <chrono>

#include "PelmoLib/encodings/VLKLog.h"
#include "json/JSONWriter.h"
#include "platform/base/Date.h"
#include "service/Partition.h"
#include "service/Users.h"

namespace velkor::service {
namespace {

constexpr Sql findLock{"SELECT serial, held, app, instance, since, active, transfer_until FROM locks WHERE user_id = :user",
                       "i:iittiii"};
constexpr Sql grantLock{
    "INSERT INTO locks (user_id, serial, held, app, instance, since, active, transfer_until) VALUES (:user, 1, 1, :app, "
    ":instance, :now, :now, 0) ON CONFLICT (user_id) DO UPDATE SET serial = locks.serial + 1, held = 1, "
    "app = excluded.app, instance = excluded.instance, since = excluded.since, active = excluded.active, transfer_until = 0",
    "itti:"};
constexpr Sql releaseLock{"UPDATE locks SET held = 0 WHERE user_id = :user", "i:"};
constexpr Sql touchLock{"UPDATE locks SET active = :now, transfer_until = :until WHERE user_id = :user AND serial = :serial",
                        "iiii:"};

constexpr std::int64_t touchesPerLease = 16;
constexpr std::int64_t longestTransferLeases = 8;
constexpr std::int64_t longestTransferTime = 900'000;  // milliseconds

Response busy(const Lock& lock) {
    Response response;
    response.status = 409;
    response.body.clear();
    JSONWriter writer(response.body);
    writer.beginObject();
    writer.member("error", "Another client of this user is synchronising.");
    writer.member("locked_by", lock.instance);
    writer.key("locked_since");
    writer.date(NS::Date(static_cast<double>(lock.since) / 1000));
    writer.endObject();
    return response;
}

}  // namespace

Locks::Locks(Database& database, std::int64_t leaseSeconds, Clock now)
    : m_database(database),
      m_lease(leaseSeconds * 1000),
      m_now(std::move(now)),
      m_arrivals(std::chrono::milliseconds(m_lease / touchesPerLease), [this](std::int64_t user) { keepAlive(user); }) {}

std::int64_t Locks::systemMilliseconds() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

Response Locks::lock(const User& user, std::string_view app, std::string_view instance) {
    return m_database.write(user.id, [&](Connection& connection) {
        const auto lock = find(connection, user.id);
        if (lock && lock->held && lock->instance != instance && !isSilent(*lock, user.id)) return busy(*lock);
        if (!isUser(connection, user.id)) return unauthorised();
        Partition::settleAll(connection, user.id);
        connection.run(grantLock, user.id, app, instance, m_now());
        return userAnswer(user.id);
    });
}

Response Locks::unlock(const User& user, std::string_view instance) {
    return m_database.write(user.id, [&](Connection& connection) {
        const auto lock = find(connection, user.id);
        if (lock && lock->isHeldBy(instance)) {
            Partition::settleAll(connection, user.id);
            connection.run(releaseLock, user.id);
        }
        return Response::json("{}");
    });
}

std::optional<Lock> Locks::heldBy(Connection& connection, std::int64_t user, std::string_view instance) {
    auto lock = find(connection, user);
    if (!lock || !lock->isHeldBy(instance)) return std::nullopt;
    touch(connection, user, *lock);
    return lock;
}

std::optional<Lock> Locks::held(Connection& connection, std::int64_t user) {
    auto lock = find(connection, user);
    if (!lock || !lock->held) return std::nullopt;
    touch(connection, user, *lock);
    return lock;
}

std::optional<Lock> Locks::find(Connection& connection, std::int64_t user) {
    auto rows = connection.query(findLock, user);
    if (!rows.next()) return std::nullopt;
    return Lock{rows.integer(0), rows.integer(1) != 0, rows.text(2),   rows.text(3),
                rows.integer(4), rows.integer(5),      rows.integer(6)};
}

Response Locks::refusal(Connection& connection, std::int64_t user) {
    const auto lock = find(connection, user);
    if (lock && lock->held) return busy(*lock);
    return Response::error(409, "This request needs the user's lock.");
}

void Locks::noteActivity(std::int64_t user, std::string_view instance) {
    const auto lock = m_database.read([&](Connection& connection) { return find(connection, user); });
    if (!lock || !lock->isHeldBy(instance) || !isTouchDue(*lock)) return;
    m_database.write(user, [&](Connection& connection) { return heldBy(connection, user, instance).has_value(); });
}

bool Locks::isTouchDue(const Lock& lock) const {
    return lock.transferUntil != 0 || m_now() - lock.active >= m_lease / touchesPerLease;
}

void Locks::touch(Connection& connection, std::int64_t user, const Lock& lock) {
    if (isTouchDue(lock)) connection.run(touchLock, m_now(), 0, user, lock.serial);
}

void Locks::keepAlive(std::int64_t user) {
    try {
        const auto lock = m_database.read([&](Connection& connection) { return find(connection, user); });
        if (!lock || !lock->held || !isTouchDue(*lock)) return;
        m_database.write(user, [&](Connection& connection) { return connection.run(touchLock, m_now(), 0, user, lock->serial); });
    } catch (const std::exception& failure) {
        VLKLog::sharedInstance().logMessageAtLevel(100, "A lock's holder could not be counted as active: %@", failure.what());
    }
}

std::int64_t Locks::longestTransfer() const { return std::min(longestTransferTime, longestTransferLeases * m_lease); }

bool Locks::isTransferNoteDue(const Lock& lock) const {
    return lock.held && m_now() + longestTransfer() - lock.transferUntil >= m_lease / touchesPerLease;
}

void Locks::noteTransfer(Connection& connection, std::int64_t user) {
    const auto lock = find(connection, user);
    if (lock && isTransferNoteDue(*lock)) connection.run(touchLock, m_now(), m_now() + longestTransfer(), user, lock->serial);
}

void Locks::noteTransfer(std::int64_t user) {
    const auto lock = m_database.read([&](Connection& connection) { return find(connection, user); });
    if (!lock || !isTransferNoteDue(*lock)) return;
    m_database.write(user, [&](Connection& connection) {
        noteTransfer(connection, user);
        return 0;
    });
}

void Locks::noteTransferEnd(Connection& connection, std::int64_t user) {
    if (const auto lock = find(connection, user); lock && lock->held) touch(connection, user, *lock);
}

bool Locks::isSilent(const Lock& lock, std::int64_t user) const {
    const auto now = m_now();
    return now - lock.active >= m_lease + m_lease / touchesPerLease && now >= lock.transferUntil && !m_arrivals.has(user);
}

}  // namespace velkor::service
