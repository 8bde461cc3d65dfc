#pragma once

#include "service/Accounts.h"
#include "service/Directories.h"
#include "service/ListingRequest.h"
#include "service/Locks.h"

namespace velkor::service {

/// POST users/ID/known_objects/sync.json: mends what the lock holder and the service know differently. Any thread.
class KnownObjectsEndpoint {
public:
    /// The references live longer. A longer answer than `page` transactions is fetched page by page.
    KnownObjectsEndpoint(Database& database, Locks& locks, Directories& directories, std::int64_t page)
        : m_database(database), m_locks(locks), m_directories(directories), m_page(page) {}

    Response handle(const User& user, Body& body);

private:
    Response compare(Connection& connection, const User& user, const ListingRequest& listing);

    Database& m_database;
    Locks& m_locks;
    Directories& m_directories;
    const std::int64_t m_page;
};

}  // namespace velkor::service
