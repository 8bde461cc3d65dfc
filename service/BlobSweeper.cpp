#include "service/BlobSweeper.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "PelmoLib/encodings/VLKLog.h"

namespace velkor::service {
namespace {

constexpr std::chrono::seconds sweepInterval{10};
constexpr std::int64_t retryDelay = 300'000;  // milliseconds
constexpr std::size_t sweptAtOnce = 200;

constexpr Sql findDue{"SELECT name FROM blobs WHERE due <= :now ORDER BY due LIMIT :most", "ii:t"};
// An upload that was never confirmed cannot be confirmed from here on.
constexpr Sql retire{"UPDATE blobs SET state = 2 WHERE name = :name AND due <= :now", "ti:"};
constexpr Sql forget{"DELETE FROM blobs WHERE name = :name AND state = 2", "t:"};
constexpr Sql postpone{"UPDATE blobs SET due = :due WHERE name = :name AND state = 2", "it:"};

}  // namespace

void BlobSweeper::sweep() {
    while (sweepSome()) {
    }
}

bool BlobSweeper::sweepSome() {
    const auto now = m_now();
    std::vector<std::string> names;
    m_database.read([&](Connection& connection) {
        names.clear();
        auto rows = connection.query(findDue, now, sweptAtOnce);
        while (rows.next()) names.push_back(rows.text(0));
        return 0;
    });
    if (names.empty()) return false;
    std::vector<std::string> retired;
    m_database.write(Database::nobody, [&](Connection& connection) {
        retired.clear();
        for (const auto& name : names) {
            // One that was confirmed in the meantime is not due any more.
            if (connection.run(retire, name, now) == 1) retired.push_back(name);
        }
        return 0;
    });
    bool isRemoved = true;
    try {
        m_store.remove(retired);
    } catch (const BlobStoreFailure& failure) {
        VLKLog::sharedInstance().logMessageAtLevel(100, "Blobs could not be removed: %@", failure.what());
        isRemoved = false;
    }
    m_database.write(Database::nobody, [&](Connection& connection) {
        for (const auto& name : retired) {
            if (isRemoved) {
                connection.run(forget, name);
            } else {
                connection.run(postpone, now + retryDelay, name);
            }
        }
        return 0;
    });
    return isRemoved && names.size() == sweptAtOnce;
}

void BlobSweeper::start() {
    m_thread = std::jthread([this](std::stop_token stop) {
        std::mutex mutex;
        std::condition_variable_any ended;
        std::unique_lock guard(mutex);
        while (!stop.stop_requested()) {
            try {
                sweep();
            } catch (const DatabaseFailure& failure) {
                VLKLog::sharedInstance().logMessageAtLevel(100, "The database failed: %@", failure.what());
            }
            ended.wait_for(guard, stop, sweepInterval, [] { return false; });
        }
    });
}

}  // namespace velkor::service
