#include "service/BlobSweeper.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <span>
#include <utility>

#include "PelmoLib/encodings/VLKLog.h"
#include "service/BlobTimes.h"

namespace velkor::service {
namespace {

constexpr std::chrono::seconds sweepInterval{10};
constexpr std::int64_t retryDelay = 300'000;  // milliseconds
constexpr std::size_t sweptAtOnce = 200;
constexpr int mostFailures = 3;  // of single blobs, before the store itself is taken for broken

// Names in their order lie close together in the store.
constexpr Sql findDue{"SELECT name FROM blobs WHERE due <= :now ORDER BY due, name LIMIT :most", "ii:t"};
// An upload that was never confirmed cannot be confirmed from here on.
constexpr Sql retire{"UPDATE blobs SET state = 2 WHERE name = :name AND due <= :now", "ti:"};
// An upload that began in time may still be on its way, and leave its bytes behind: the blob is removed once more then.
constexpr Sql forget{"DELETE FROM blobs WHERE name = :name AND state = 2 AND issued <= :latest", "ti:"};
constexpr Sql removeAgain{"UPDATE blobs SET due = issued + :time WHERE name = :name AND state = 2", "it:"};
constexpr Sql postpone{"UPDATE blobs SET due = :due WHERE name = :name AND state = 2", "it:"};

}  // namespace

void BlobSweeper::sweep(const std::stop_token& stop) {
    while (!stop.stop_requested() && sweepSome()) {
    }
}

std::size_t BlobSweeper::removeFromStore(std::vector<std::string>& names) {
    std::size_t removed = 0;
    int failures = 0;
    auto remove = [&](std::size_t count) {
        try {
            m_store.remove(std::span(names).subspan(removed, count));
            removed += count;
            return true;
        } catch (const BlobStoreFailure& failure) {
            VLKLog::sharedInstance().logMessageAtLevel(100, "Blobs could not be removed: %@", failure.what());
            return false;
        }
    };
    if (remove(names.size())) return removed;
    // One that cannot be removed keeps no other.
    for (std::size_t end = names.size(); removed < end && failures < mostFailures;) {
        if (remove(1)) continue;
        ++failures;
        std::swap(names[removed], names[--end]);
    }
    return removed;
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
    const std::size_t removed = removeFromStore(retired);
    m_database.write(Database::nobody, [&](Connection& connection) {
        for (std::size_t i = 0; i < retired.size(); ++i) {
            if (i >= removed) {
                connection.run(postpone, now + retryDelay, retired[i]);
            } else if (connection.run(forget, retired[i], now - longestUpload) == 0) {
                connection.run(removeAgain, longestUpload, retired[i]);
            }
        }
        return 0;
    });
    return removed > 0 && names.size() == sweptAtOnce;
}

void BlobSweeper::start() {
    m_thread = std::jthread([this](std::stop_token stop) {
        std::mutex mutex;
        std::condition_variable_any ended;
        std::unique_lock guard(mutex);
        while (!stop.stop_requested()) {
            try {
                sweep(stop);
            } catch (const std::exception& failure) {
                VLKLog::sharedInstance().logMessageAtLevel(100, "Blobs could not be swept: %@", failure.what());
            }
            ended.wait_for(guard, stop, sweepInterval, [] { return false; });
        }
    });
}

}  // namespace velkor::service
