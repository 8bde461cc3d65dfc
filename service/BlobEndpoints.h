#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "service/Accounts.h"
#include "service/BlobStore.h"
#include "service/Directories.h"
#include "service/Locks.h"

namespace velkor::service {

/// What a blob call names, and who calls.
struct BlobCall {
    std::optional<User> user;  // none when the call carries no credentials
    std::string app, guid, attribute;
    std::string origin;  // of the service, as the client sees it
};

/// GET client_apps/APP/blobs/GUID/ATTRIBUTE/{read,write,delete}.json and POST .../wrote.json: issue presigned requests to the
/// blob store and take the confirmation of uploads. Clients upload and delete without credentials; such a call is taken only
/// while exactly one held lock's latest changes request names the guid, a deletion also when no more than one user has the guid.
/// Any thread.
class BlobEndpoints {
public:
    BlobEndpoints(Database& database, Locks& locks, Directories& directories, BlobStore& store, Locks::Clock now)
        : m_database(database), m_locks(locks), m_directories(directories), m_store(store), m_now(std::move(now)) {}

    Response read(const BlobCall& call);
    Response write(const BlobCall& call);
    Response wrote(const BlobCall& call, std::string_view form);
    Response remove(const BlobCall& call);

    /// What takes the body of a presigned upload; null for any other request.
    std::shared_ptr<BodyReceiver> receiver(const Request& head) { return m_store.receiver(head); }
    /// The answer to a presigned request to the service's own address.
    Response serve(const Request& request);
    /// Whether the request goes to the blob store's part of the service's own address.
    static bool isStoreTarget(std::string_view target);

    /// Whether the request comes without credentials, which some clients send as two missing values.
    static bool isAnonymous(const Request& request);

private:
    /// Whose blob it is; a partition 0 has no data yet.
    struct Owner {
        std::int64_t user = 0, partition = 0;
        std::int64_t instance = 0;  // 0 when unknown
    };
    /// Whose blob the call may touch; none for a call without credentials that could be anybody's.
    static std::optional<Owner> ownerOf(Connection& connection, const BlobCall& call);
    /// Runs the body in the owner's writing transaction; none when there is no such owner.
    template <class F>
    auto writeForOwner(const BlobCall& call, F&& body) {
        const auto found = m_database.read([&](Connection& connection) { return ownerOf(connection, call); });
        using Result = decltype(body(std::declval<Connection&>(), *found));
        if (!found) return Result();
        return m_database.write(found->user, [&](Connection& connection) {
            const auto owner = ownerOf(connection, call);
            return owner && owner->user == found->user ? body(connection, *owner) : Result();
        });
    }

    Response confirm(const BlobCall& call, const std::string& name, const std::string& hash);
    /// Gives the object's transaction a new number, so that everybody fetches the blob.
    void renumber(Connection& connection, const Owner& owner, std::string_view guid);

    Database& m_database;
    Locks& m_locks;
    Directories& m_directories;
    BlobStore& m_store;
    const Locks::Clock m_now;
};

}  // namespace velkor::service
