#pragma once

#include <cstddef>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "service/BlobStore.h"
#include "service/Database.h"

namespace velkor::service {

/// Removes from the blob store what the database says is not needed any more. Several processes may do it at the same time. What
/// cannot be removed now is tried again later.
class BlobSweeper {
public:
    /// The references live longer.
    BlobSweeper(Database& database, BlobStore& store, BlobStore::Clock now)
        : m_database(database), m_store(store), m_now(std::move(now)) {}

    /// Removes everything that is due, or what it comes to until it is stopped. One thread at a time.
    void sweep(const std::stop_token& stop = {});
    /// Sweeps now and again, on a thread of its own, as long as the sweeper lives.
    void start();

private:
    bool sweepSome();
    /// Removes the blobs from the store; how many of them, moved to the front, were.
    std::size_t removeFromStore(std::vector<std::string>& names);

    Database& m_database;
    BlobStore& m_store;
    const BlobStore::Clock m_now;
    std::jthread m_thread;  // last: it uses the rest
};

}  // namespace velkor::service
