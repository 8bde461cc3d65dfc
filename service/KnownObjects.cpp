#include "service/KnownObjects.h"

#include "json/JSONWriter.h"
#include "service/Comparison.h"
#include "service/Corrections.h"
#include "service/Download.h"
#include "service/KeptParts.h"

namespace velkor::service {
namespace {

std::string listingAnswer(Connection& connection, const Partition& partition, const Instance& instance,
                          const Comparison& comparison, std::int64_t page) {
    std::string text;
    JSONWriter writer(text);
    writer.beginObject();
    const bool paged = comparison.sentCount() > page;
    if (paged) {
        const Download download{Download::Kind::listing, partition.id,    instance.id, instance.listing,
                                partition.highest,       partition.epoch, page};
        writer.key("batched_download_identifier");
        writer.plainString(download.identifier());
    }
    writer.key("new_xactions");
    writer.beginArray();
    if (!paged) {
        Corrections corrections(connection, partition.id, instance.id);
        NewsPosition position = corrections.start();
        corrections.write(writer, position, page);
    }
    writer.endArray();
    writer.key("HIGHEST_XACTION");
    writer.number(partition.highest);
    writer.key("unknown_objects");
    writer.beginArray();
    for (const auto guid : comparison.unknown()) writer.string(guid);
    writer.endArray();
    writer.endObject();
    return text;
}

}  // namespace

Response KnownObjectsEndpoint::handle(const User& user, Body& body) {
    const auto listing = ListingRequest::read(body.view());
    if (!listing) return Response::error(400, "The request is no listing.");
    return m_database.write(user.id, [&](Connection& connection) { return compare(connection, user, *listing); });
}

Response KnownObjectsEndpoint::compare(Connection& connection, const User& user, const ListingRequest& listing) {
    const auto lock = m_locks.held(connection, user.id);
    if (!lock) return Locks::refusal(connection, user.id);
    Partition::settleAll(connection, user.id);
    auto partition = Partition::find(connection, user.id, listing.app());
    if (partition) KeptParts(connection, *partition).takeIn(m_directories);
    auto instance = partition ? Instance::find(connection, partition->id, lock->instance) : std::nullopt;
    if (!instance || partition->changesLock != lock->serial) {
        return Response::error(409, "A listing needs a changes request before it under the same lock.");
    }
    const auto directory = m_directories.current(connection, *partition);
    Comparison comparison(connection, *partition, *instance, *directory);
    comparison.take(listing.guids(), lock->serial);
    partition->store(connection);
    instance->store(connection);
    return Response::json(listingAnswer(connection, *partition, *instance, comparison, m_page));
}

}  // namespace velkor::service
