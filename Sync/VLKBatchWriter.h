// Many transactions at once: their objects brought up to date, their wire forms in one text.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Sync/VLKTransaction.h"
#include "Sync/VLKTransactionMap.h"
#include "json/JSONWriter.h"
#include "platform/base/Result.h"

namespace velkor {

/// Writes a batch as JSON. On the thread of the transactions' contexts; compression runs on the shared pool meanwhile.
class VLKBatchWriter {
public:
    /// Brings the transactions' objects up to date with the store before they are judged and written: finds those not yet
    /// resolved by one fetch an entity, refreshes all by one more, loads their relationships by one scan each. Afterwards the
    /// `obj` of a transaction whose row is gone is null. After a failed fetch the batch must be neither judged nor written: what
    /// could not be read is not gone.
    static NS::Result<void> loadObjects(const VLKTransactionMap& batch);

    /// Writes one JSON object as the writer's next value: for each transaction its key and its wire form, in the batch's order.
    /// Generic value transactions have none and are left out. So is a transaction whose wire form cannot be made; the keys of
    /// these are returned, for the caller to log and to remove. A failed assertion passes through, and
    /// so does a store that cannot be read: its transaction is not a bad one.
    std::vector<std::string> writeTransactions(JSONWriter& writer, const VLKTransactionMap& batch);
};

}  // namespace velkor
