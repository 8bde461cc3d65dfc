#include "service/BatchIntake.h"

#include "service/Fingerprints.h"
#include "service/Withholding.h"

namespace velkor::service {
BatchIntake::BatchIntake(Connection& connection, Partition& partition, Instance& instance, GuidDirectory& directory)
    : m_connection(connection),
      m_partition(partition),
      m_instance(instance),
      m_directory(directory),
      m_relations(Relations::read(connection, partition.id)),
      m_objects(connection, partition.id, partition.nextObject),
      m_graph(m_objects, directory, m_relations) {
    directory.markAhead();
    partition.provisionalAbove = partition.highest;
    partition.provisionalObject = partition.nextObject;
}

void BatchIntake::take(std::vector<IncomingTransaction>& transactions, std::int64_t highest) {
    m_repeats.clear();
    if (transactions.empty()) return;
    const Sender sender{m_instance.id, highest, m_instance.highestOfOthers(m_connection, m_partition.id) <= highest};
    m_graph.actFor(sender);
    m_taken.clear();
    m_taken.reserve(transactions.size());
    m_objects.reserve(transactions.size());
    takeObjects(transactions, sender);
    if (m_taken.empty()) return;
    m_tookAny = true;
    m_instance.lastNumber = m_partition.highest;
    m_instance.batchHighest = highest;
    learnRelations();
    takeLinks();
    judgeLists(sender.alone);
}

void BatchIntake::store() {
    m_graph.pack();
    m_objects.store(m_directory);
    m_partition.hash.clear();
    if (!m_tookAny) return;
    m_partition.provisional = m_instance.id;
    if (liftWithheld(m_connection, m_partition.id, m_partition.provisionalAbove)) m_instance.hashOf.clear();
}

bool BatchIntake::isRepeat(const IncomingTransaction& transaction, const ObjectRow& row, const Sender& sender) {
    if (row.number == 0) return false;
    m_wireForm.clear();
    transaction.appendWireForm(m_wireForm);
    if (row.instance == sender.instance) {
        // A sender that knows of links that are not in its lists, and sends the lists again, wants them.
        return row.body() == m_wireForm && (sender.highest < row.number || !row.state.computed);
    }
    if (sender.alone || sender.highest >= row.number) return false;
    return isKeptFingerprint(m_connection, m_objects.rowId(row.object), sender.instance, m_wireForm);
}

void BatchIntake::takeObjects(std::vector<IncomingTransaction>& transactions, const Sender& sender) {
    for (IncomingTransaction& transaction : transactions) {
        ObjectRow& row = m_objects.row(m_directory.obtain(transaction.guid(), m_partition.nextObject));
        if (isRepeat(transaction, row, sender)) {
            m_repeats.push_back(transaction.guid());
            continue;
        }
        if (row.number > 0 && row.instance != sender.instance && row.instance != 0) {
            keepFingerprint(m_connection, m_objects.rowId(row.object), row.instance, row.body());
        }
        row.number = row.touched = ++m_partition.highest;
        row.instance = sender.instance;
        row.state = {.kind = transaction.kind()};
        row.source = &transaction;
        row.changed = true;
        m_directory.setKind(row.object, row.state.kind);
        m_taken.push_back({&transaction, &row});
    }
    std::erase_if(m_taken, [](const Taken& taken) { return taken.row->source != taken.transaction; });
}

void BatchIntake::learnRelations() {
    for (const Taken& taken : m_taken) {
        for (const auto& relationship : taken.transaction->relationships()) {
            m_relations.learn(m_connection, taken.transaction->className(), relationship.name, relationship.destination,
                              relationship.toMany);
        }
    }
    m_relations.pairUp();
    for (const Taken& taken : m_taken) {
        for (auto& relationship : taken.transaction->relationships()) {
            relationship.end = m_relations.end(taken.transaction->className(), relationship.name, relationship.destination);
            if (!relationship.end.kept) continue;
            relationship.destinations.clear();  // of an earlier try
            relationship.destinations.reserve(relationship.guids.size());
            for (const auto guid : relationship.guids) {
                relationship.destinations.push_back(m_directory.obtain(guid, m_partition.nextObject));
            }
        }
    }
}

void BatchIntake::takeLinks() {
    for (const auto& [transaction, row] : m_taken) {
        if (row->state.kind == ObjectKind::deleted) m_graph.removeLinks(row->object, row->number);
    }
    for (const auto& [transaction, row] : m_taken) {
        for (const auto& relationship : transaction->relationships()) {
            if (!relationship.end.kept || !relationship.toMany) continue;
            m_graph.setList(row->object, relationship.end, relationship.destinations, row->number);
        }
    }
    // Last, because a to-one that names a destination always holds.
    for (const auto& [transaction, row] : m_taken) {
        for (const auto& relationship : transaction->relationships()) {
            if (!relationship.end.kept || relationship.toMany || relationship.destinations.empty()) continue;
            m_graph.setDestination(row->object, relationship.end, relationship.destinations.front(), row->number);
        }
    }
}

void BatchIntake::judgeLists(bool alone) {
    for (const auto& [transaction, row] : m_taken) {
        bool agrees = true, pairsAgree = true;
        for (const auto& relationship : transaction->relationships()) {
            if (!relationship.end.kept || m_graph.agrees(row->object, relationship.end, relationship.destinations)) continue;
            agrees = false;
            if (relationship.end.paired) pairsAgree = false;
        }
        // Links whose other end is not known yet are judged as well: it may be, by the time the object is sent.
        row->state.computed = !agrees && isLive(row->state.kind);
        row->state.overruled = !pairsAgree && isLive(row->state.kind) && !alone;
    }
}

}  // namespace velkor::service
