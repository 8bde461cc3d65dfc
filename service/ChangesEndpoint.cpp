#include "service/ChangesEndpoint.h"

#include <algorithm>

#include "json/JSONWriter.h"
#include "service/BatchIntake.h"
#include "service/BatchRecord.h"
#include "service/Corrections.h"
#include "service/Download.h"
#include "service/KeptParts.h"
#include "service/NewTransactions.h"
#include "service/SchemaEndpoint.h"
#include "service/Withholding.h"

namespace velkor::service {
namespace {

constexpr std::size_t mostReinstated = 1 << 30;  // bytes of payloads
constexpr Sql dropRolled{"DELETE FROM rolled WHERE instance = :instance AND guid = :guid", "it:"};
constexpr Sql readRolled{
    "SELECT rolled.body FROM rolled LEFT JOIN objects ON objects.partition_id = :partition AND objects.guid = "
    "rolled.guid WHERE rolled.instance = :instance AND COALESCE(objects.number, 0) < rolled.number ORDER BY "
    "rolled.id",
    "ii:t"};
constexpr Sql dropAllRolled{"DELETE FROM rolled WHERE instance = :instance", "i:"};

}  // namespace

Response ChangesEndpoint::handle(const User& user, Body& body) {
    auto request = ChangesRequest::read(body.view());
    if (!request) return Response::error(400, "The request is no changes request.");
    if (!request->isMultiPart()) request->readRelationships();
    Written written;
    return m_database.write(
        user.id, [&](Connection& connection) { return exchange(connection, user, *request, body.view(), written); },
        [&] {
            if (written.directory) written.directory->markCurrent(written.state);
        });
}

Response ChangesEndpoint::exchange(Connection& connection, const User& user, ChangesRequest& request, std::string_view json,
                                   Written& written) {
    written = {};
    const auto lock = m_locks.heldBy(connection, user.id, request.instance());
    if (!lock) return Locks::refusal(connection, user.id);

    Partition::settleAll(connection, user.id);
    Partition partition = Partition::obtain(connection, user.id, request.app());
    const Partition partitionBefore = partition;
    auto known = Instance::find(connection, partition.id, request.instance());
    KeptParts parts(connection, partition);
    const bool isKept = known && request.isMultiPart() && !request.transactions().empty() && parts.mayKeep(*known, json);
    if (!isKept && !parts.empty()) {
        parts.takeIn(directoryOf(connection, partition, written));
        known = Instance::find(connection, partition.id, request.instance());
    }
    Instance instance = known ? *known : Instance::add(connection, partition.id, request.instance());
    const Instance instanceBefore = instance;
    const bool comparable = known && request.highest() >= -1 && request.highest() <= partition.highest;
    // Numbers start at 1, so a newcomer has seen everything up to 0.
    const std::int64_t highest = comparable ? std::max<std::int64_t>(request.highest(), 0) : 0;
    Corrections::noteRequest(connection, instance, highest, partition.changesLock != lock->serial);
    partition.changesLock = lock->serial;
    storeSchema(connection, partition.id, request.modelVersion(), request.schema());

    if (isKept) {
        parts.keep(instance, request, highest, json, *lock);
    } else if (!request.transactions().empty() || (known && known->hasRolled(connection))) {
        takeBatch(connection, partition, instance, request, highest, *lock, directoryOf(connection, partition, written));
    } else {
        recordBatch(connection, partition.id, lock->serial, instance.id, partition.highest, {});
    }
    Withholding withholding(connection, partition, instance);
    // Nobody compares the hash before the last part, and it costs as much as there are objects.
    if (!request.isMultiPart()) {
        if (partition.hash.empty()) partition.hash = directoryOf(connection, partition, written).hash();
        if (instance.askedUnder != 0) withholding.judgeAsked(lock->serial, directoryOf(connection, partition, written));
        if (!withholding.isHashCurrent()) withholding.computeHash(directoryOf(connection, partition, written));
    }

    instance.answered = request.isMultiPart() ? highest : partition.highest;
    if (!(partition == partitionBefore)) partition.store(connection);
    if (!(instance == instanceBefore)) instance.store(connection);
    written.state = partition;
    return Response::json(answer(connection, partition, instance, request, highest, withholding.hash()));
}

GuidDirectory& ChangesEndpoint::directoryOf(Connection& connection, const Partition& partition, Written& written) {
    if (!written.directory) written.directory = m_directories.current(connection, partition);
    return *written.directory;
}

void ChangesEndpoint::takeBatch(Connection& connection, Partition& partition, Instance& instance, ChangesRequest& request,
                                std::int64_t highest, const Lock& lock, GuidDirectory& directory) {
    request.readRelationships();
    BatchIntake intake(connection, partition, instance, directory);
    Reinstated reinstated;
    if (instance.hasRolled(connection)) collectRolled(connection, partition, instance, request, reinstated);
    intake.take(reinstated.transactions, instance.batchHighest);
    const std::int64_t above = partition.highest;
    intake.take(request.transactions(), highest);
    const auto repeats = intake.repeats();
    intake.store();
    recordBatch(connection, partition.id, lock.serial, instance.id, above, repeats);
}

void ChangesEndpoint::collectRolled(Connection& connection, const Partition& partition, const Instance& instance,
                                    const ChangesRequest& request, Reinstated& reinstated) {
    for (const auto& transaction : request.transactions()) connection.run(dropRolled, instance.id, transaction.guid());
    if (request.isMultiPart()) return;
    // What never came again had been acknowledged. Where somebody else has written since, that holds, as it would have.
    {
        std::size_t bytesLeft = mostReinstated;
        auto rows = connection.query(readRolled, partition.id, instance.id);
        while (rows.next()) {
            const std::string& body = reinstated.bodies.emplace_back(rows.text(0));
            auto transaction = IncomingTransaction::fromStored(body, reinstated.cursors.emplace_back(body));
            if (!transaction) continue;
            transaction->readRelationships(reinstated.arena, bytesLeft);
            reinstated.transactions.push_back(*std::move(transaction));
        }
    }
    connection.run(dropAllRolled, instance.id);
}

std::string ChangesEndpoint::answer(Connection& connection, const Partition& partition, const Instance& instance,
                                    const ChangesRequest& request, std::int64_t highest, const std::string& hash) const {
    std::string text;
    JSONWriter writer(text);
    writer.beginObject();
    const bool hasNews = !request.isMultiPart() && instance.highestOfOthers(connection, partition.id) > highest;
    NewTransactions news(connection, partition.id, instance.id, highest);
    const bool paged = hasNews && news.hasMoreThan(m_page);
    if (paged) {
        const Download download{Download::Kind::changes, partition.id,    instance.id, highest,
                                partition.highest,       partition.epoch, m_page};
        writer.key("batched_download_identifier");
        writer.plainString(download.identifier());
    }
    writer.key("new_xactions");
    writer.beginArray();
    if (hasNews && !paged) {
        NewsPosition position = news.start();
        news.write(writer, position, m_page);
    }
    writer.endArray();
    writer.key("HIGHEST_XACTION");
    writer.number(request.isMultiPart() ? request.highest() : partition.highest);
    if (!request.isMultiPart()) {
        writer.key("SYNC_HASH");
        writer.string(hash);
    }
    writer.endObject();
    return text;
}

}  // namespace velkor::service
