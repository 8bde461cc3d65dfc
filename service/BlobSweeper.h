#pragma once

#include <functional>
#include <stop_token>
#include <thread>

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

    /// Removes everything that is due. One thread at a time.
    void sweep();
    /// Sweeps now and again, on a thread of its own, as long as the sweeper lives.
    void start();

private:
    bool sweepSome();

    Database& m_database;
    BlobStore& m_store;
    const BlobStore::Clock m_now;
    std::jthread m_thread;  // last: it uses the rest
};

}  // namespace velkor::service
