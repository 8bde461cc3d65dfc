#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "service/Accounts.h"
#include "service/BlobEndpoints.h"
#include "service/ChangesEndpoint.h"
#include "service/Database.h"
#include "service/Directories.h"
#include "service/Download.h"
#include "service/HttpMessage.h"
#include "service/KnownObjects.h"
#include "service/Locks.h"

namespace velkor::service {

/// The sync service behind HTTP: finds out who asks for what, and has it done. Any thread.
class Router : public HttpHandler {
public:
    struct Settings {
        std::int64_t leaseSeconds = 120;
        std::int64_t page = 500;
        std::int64_t maximumBody = std::int64_t(1) << 30;
        Locks::Clock now = Locks::systemMilliseconds;
    };

    /// The database and the store live longer.
    Router(Database& database, BlobStore& blobStore, const Settings& settings);

    std::shared_ptr<BodyReceiver> receiver(const Request& head) override;
    std::optional<Response> admit(Request& head, std::size_t bodySize) override;
    Response handle(Request& request) override;

private:
    /// What a path's "*" segments stand for, and its query.
    struct Match {
        std::vector<std::string> parameters;
        std::string query;
    };
    struct Route;
    static const std::vector<Route>& routes();
    /// The route of the request, or the answer that refuses it.
    static std::variant<const Route*, Response> find(const Request& request, Match& match);

    std::optional<Response> refusalOf(Request& head, std::size_t bodySize);
    Response answer(Request& request);

    Response lock(const User& user, const Match& match, Request& request);
    Response unlock(const User& user, const Match& match, Request& request);
    Response changes(const User& user, const Match& match, Request& request);
    Response page(const User& user, const Match& match, Request& request);
    Response schema(const User& user, const Match& match, Request& request);
    Response rollback(const User& user, const Match& match, Request& request);
    Response verify(const User& user, const Match& match, Request& request);
    Response signOut(const User& user, const Match& match, Request& request);
    Response listing(const User& user, const Match& match, Request& request);
    Response changePassword(const User& user, const Match& match, Request& request);
    Response deleteAllData(const User& user, const Match& match, Request& request);
    Response deleteAccount(const User& user, const Match& match, Request& request);
    Response keepClient(const User& user, const Match& match, Request& request);
    Response clients(const User& user, const Match& match, Request& request);

    Response signUp(const Match& match, Request& request);
    Response passwordReset(const Match& match, Request& request);
    Response readBlob(const Match& match, Request& request);
    Response writeBlob(const Match& match, Request& request);
    Response wroteBlob(const Match& match, Request& request);
    Response deleteBlob(const Match& match, Request& request);
    /// What a blob call names and who calls, or the answer that refuses it.
    std::variant<BlobCall, Response> blobCall(const Match& match, const Request& request);
    template <class F>
    Response withBlobCall(const Match& match, const Request& request, F&& answer) {
        auto call = blobCall(match, request);
        if (auto* refusal = std::get_if<Response>(&call)) return std::move(*refusal);
        return answer(std::get<BlobCall>(call));
    }

    Database& m_database;
    const Settings m_settings;
    Accounts m_accounts;
    Locks m_locks;
    Directories m_directories;
    ChangesEndpoint m_changes;
    KnownObjectsEndpoint m_knownObjects;
    DownloadEndpoint m_download;
    BlobEndpoints m_blobs;
};

}  // namespace velkor::service
