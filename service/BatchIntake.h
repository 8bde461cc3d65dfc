#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "service/GuidDirectory.h"
#include "service/IncomingTransaction.h"
#include "service/LinkGraph.h"
#include "service/ObjectSet.h"
#include "service/Partition.h"
#include "service/Relations.h"

namespace velkor::service {

/// Takes an instance's transactions into a partition, in one writing transaction: numbers, repeats, rows and the link graph.
class BatchIntake {
public:
    /// The references live longer. The directory is current, and ahead of the database from here on.
    BatchIntake(Connection& connection, Partition& partition, Instance& instance, GuidDirectory& directory);

    /// Takes a batch in, objects first, then links. The batch lives until `store`; `highest` is the sender's HIGHEST_XACTION.
    void take(std::vector<IncomingTransaction>& transactions, std::int64_t highest);
    /// Writes what was taken in, which is what is provisional from now on; nothing is taken afterwards. What was provisional
    /// before has been settled.
    void store();
    /// The guids of the latest batch whose transactions were repeats; the batch's texts.
    const std::vector<std::string_view>& repeats() const { return m_repeats; }

private:
    bool isRepeat(const IncomingTransaction& transaction, const ObjectRow& row, const Sender& sender);
    void takeObjects(std::vector<IncomingTransaction>& transactions, const Sender& sender);
    void learnRelations();
    void takeLinks();
    void judgeLists(bool alone);

    Connection& m_connection;
    Partition& m_partition;
    Instance& m_instance;
    GuidDirectory& m_directory;
    Relations m_relations;
    ObjectSet m_objects;
    LinkGraph m_graph;
    struct Taken {
        IncomingTransaction* transaction;
        ObjectRow* row;
    };
    std::vector<Taken> m_taken;  // of the batch at hand; each object once
    std::vector<std::string_view> m_repeats;
    std::string m_wireForm;  // of the transaction at hand
    bool m_tookAny = false;
};

}  // namespace velkor::service
