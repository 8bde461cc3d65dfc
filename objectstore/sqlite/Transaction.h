// Write transactions of the store's own housekeeping. Internal to the object store.
#pragma once

#include "objectstore/sqlite/Connection.h"
#include "platform/base/DurableStep.h"

namespace velkor::NS::sqlite {

/// Runs `work` (giving a Result<void>) in a write transaction; what it wrote is kept only when it succeeds.
template <class Work>
Result<void> inTransaction(Connection& connection, Work&& work) {
    if (auto begun = connection.execute("BEGIN IMMEDIATE"); !begun) return begun;
    Result<void> done = work();
    if (done) {
        durableStep("store commit");
        done = connection.execute("COMMIT");
    }
    if (!done && connection.inTransaction()) {
        // The first failure is the one to tell of.
        (void)connection.execute("ROLLBACK").ok();
    }
    return done;
}

}  // namespace velkor::NS::sqlite
