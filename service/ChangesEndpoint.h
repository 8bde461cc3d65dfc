#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <memory_resource>
#include <string>
#include <string_view>

#include "service/Accounts.h"
#include "service/BatchIntake.h"
#include "service/ChangesRequest.h"
#include "service/Directories.h"
#include "service/Locks.h"

namespace velkor::service {

/// POST users/ID/transactions.json: takes an instance's changes in and answers with what it does not know yet. Any thread.
class ChangesEndpoint {
public:
    /// The references live longer.
    ChangesEndpoint(Database& database, Locks& locks, Directories& directories, std::int64_t page)
        : m_database(database), m_locks(locks), m_directories(directories), m_page(page) {}

    Response handle(const User& user, Body& body);

private:
    /// What is in memory of the partition, and what it will be current with after the commit.
    struct Written {
        std::shared_ptr<GuidDirectory> directory;  // perhaps ahead of the database; null while it was not needed
        Partition state;
    };
    Response exchange(Connection& connection, const User& user, ChangesRequest& request, std::string_view json, Written& written);
    /// Transactions that were rolled back and never came again, with all that they refer to.
    struct Reinstated {
        std::deque<std::string> bodies;
        std::deque<JSONCursor> cursors;
        std::pmr::monotonic_buffer_resource arena;
        std::vector<IncomingTransaction> transactions;
    };
    static void collectRolled(Connection& connection, const Partition& partition, const Instance& instance,
                              const ChangesRequest& request, Reinstated& reinstated);
    GuidDirectory& directoryOf(Connection& connection, const Partition& partition, Written& written);
    static void takeBatch(Connection& connection, Partition& partition, Instance& instance, ChangesRequest& request,
                          std::int64_t highest, const Lock& lock, GuidDirectory& directory);
    std::string answer(Connection& connection, const Partition& partition, const Instance& instance,
                       const ChangesRequest& request, std::int64_t highest, const std::string& hash) const;

    Database& m_database;
    Locks& m_locks;
    Directories& m_directories;
    const std::int64_t m_page;
};

}  // namespace velkor::service
