#include "service/Router.h"

#include <algorithm>

#include "PelmoLib/encodings/VLKLog.h"
#include "platform/base/UTF8.h"
#include "service/ClientInfo.h"
#include "service/Erasure.h"
#include "service/Forms.h"
#include "service/Rollback.h"
#include "service/SchemaEndpoint.h"

namespace velkor::service {
namespace {

constexpr std::size_t longestSmallBody = 64 << 10;  // of requests that need no account or carry a few fields
constexpr std::size_t longestTarget = 8 << 10;

std::vector<std::string> segmentsOf(std::string_view path) {
    std::vector<std::string> segments;
    while (!path.empty()) {
        path.remove_prefix(1);  // the slash
        const auto segment = path.substr(0, path.find('/'));
        segments.push_back(percentDecoded(segment));
        path.remove_prefix(segment.size());
    }
    return segments;
}

/// Fits the path to a pattern. "*" stands for one segment; "**" for one or more, since an app id may hold slashes.
bool fits(const std::vector<std::string>& path, const std::vector<std::string_view>& pattern,
          std::vector<std::string>& parameters) {
    const bool open = std::find(pattern.begin(), pattern.end(), "**") != pattern.end();
    if (open ? path.size() < pattern.size() : path.size() != pattern.size()) return false;
    std::size_t at = 0;
    for (const auto part : pattern) {
        const std::size_t length = part == "**" ? path.size() - pattern.size() + 1 : 1;
        if (part != "*" && part != "**" && part != path[at]) return false;
        if (part == "*" || part == "**") {
            std::string text = path[at];
            for (std::size_t i = 1; i < length; ++i) text += '/' + path[at + i];
            if (text.empty() || text.size() > longestName || !NS::isValidUTF8(text)) return false;
            parameters.push_back(std::move(text));
        }
        at += length;
    }
    return true;
}

/// Calls the function; what it raises becomes the answer to the request.
template <class F>
auto guarded(F&& function) -> decltype(function()) {
    auto& log = VLKLog::sharedInstance();
    try {
        return function();
    } catch (const DatabaseFailure& failure) {
        log.logMessageAtLevel(100, "The database failed: %@", failure.what());
        return Response::error(503, "The service cannot reach its data.");
    } catch (const BlobStoreFailure& failure) {
        log.logMessageAtLevel(100, "The blob store failed: %@", failure.what());
        return Response::error(503, "The service cannot reach its blobs.");
    } catch (const std::bad_alloc&) {
        log.logMessageAtLevel(100, "Out of memory.");
        return Response::error(503, "The service is out of memory.");
    } catch (const std::exception&) {
        log.logMessageAtLevel(100, "A request failed for an unknown reason.");
        return Response::error(500, "The service failed.");
    }
}

}  // namespace

struct Router::Route {
    std::string_view method;
    std::vector<std::string_view> path;
    Response (Router::*answer)(const User& user, const Match& match, Request& request);
    bool large = false;                                                        // its body may be as large as the service allows
    bool ofUser = false;                                                       // the first parameter is the user's own id
    Response (Router::*open)(const Match& match, Request& request) = nullptr;  // instead of `answer`: needs no account
};

const std::vector<Router::Route>& Router::routes() {
    static const std::vector<Route> table{
        {"POST", {"users.json"}, nullptr, false, false, &Router::signUp},
        {"GET", {"users", "send_password_reset.json"}, nullptr, false, false, &Router::passwordReset},
        {"POST", {"users", "change_password.json"}, &Router::changePassword},
        {"DELETE", {"users", "account.json"}, &Router::deleteAccount},
        {"DELETE", {"users", "sign_out.json"}, &Router::signOut},
        {"GET", {"transactions", "verify.json"}, &Router::verify},
        {"POST", {"transactions", "rollback.json"}, &Router::rollback},
        {"GET", {"client", "v1.5", "**", "*", "lock.json"}, &Router::lock},
        {"GET", {"client", "**", "*", "unlock.json"}, &Router::unlock},
        {"POST", {"users", "*", "transactions.json"}, &Router::changes, true, true},
        {"GET", {"users", "*", "batchdownload.json"}, &Router::page, false, true},
        {"POST", {"users", "*", "known_objects", "sync.json"}, &Router::listing, true, true},
        {"POST", {"client_apps", "**", "schema.json"}, &Router::schema, true},
        {"GET", {"client_apps", "**", "blobs", "*", "*", "read.json"}, nullptr, false, false, &Router::readBlob},
        {"GET", {"client_apps", "**", "blobs", "*", "*", "write.json"}, nullptr, false, false, &Router::writeBlob},
        {"POST", {"client_apps", "**", "blobs", "*", "*", "wrote.json"}, nullptr, false, false, &Router::wroteBlob},
        {"GET", {"client_apps", "**", "blobs", "*", "*", "delete.json"}, nullptr, false, false, &Router::deleteBlob},
        {"DELETE", {"client_apps", "**", "delete_all_data.json"}, &Router::deleteAllData},
        {"POST", {"clientinfo.json"}, &Router::keepClient},
        {"GET", {"clientinfo.json"}, &Router::clients},
    };
    return table;
}

Router::Router(Database& database, BlobStore& blobStore, const Settings& settings)
    : m_database(database),
      m_settings(settings),
      m_accounts(database),
      m_locks(database, settings.leaseSeconds, settings.now),
      m_changes(database, m_locks, m_directories, settings.page),
      m_knownObjects(database, m_locks, m_directories, settings.page),
      m_download(database, m_locks),
      m_blobs(database, m_locks, m_directories, blobStore, settings.now) {}

std::variant<const Router::Route*, Response> Router::find(const Request& request, Match& match) {
    const std::string_view target = request.target;
    const auto question = std::min(target.find('?'), target.size());
    if (target.size() > longestTarget || !target.starts_with('/')) return Response::error(404, "There is nothing here.");
    const auto path = segmentsOf(target.substr(0, question));
    if (question < target.size()) match.query = target.substr(question + 1);
    bool known = false;
    for (const Route& route : routes()) {
        match.parameters.clear();
        if (!fits(path, route.path, match.parameters)) continue;
        if (route.method == request.method) return &route;
        known = true;
    }
    return known ? Response::error(405, "This method is not for this path.") : Response::error(404, "There is nothing here.");
}

std::optional<Response> Router::admit(Request& head, std::size_t bodySize) {
    return guarded([&] { return refusalOf(head, bodySize); });
}

std::optional<Response> Router::refusalOf(Request& head, std::size_t bodySize) {
    if (BlobEndpoints::isStoreTarget(head.target)) return Response::error(411, "An upload says how long it is.");
    Match match;
    auto found = find(head, match);
    if (auto* refusal = std::get_if<Response>(&found)) return std::move(*refusal);
    const Route& route = *std::get<const Route*>(found);
    if (bodySize > (route.large ? static_cast<std::size_t>(m_settings.maximumBody) : longestSmallBody)) {
        return Response::error(413, "The request is too large.");
    }
    if (route.open) return std::nullopt;
    auto user = m_accounts.authenticate(head);
    if (auto* refusal = std::get_if<Response>(&user)) return std::move(*refusal);
    head.hold = std::make_shared<Arrivals::Arrival>(m_locks.arrivals(), std::get<User>(user).id);
    return std::nullopt;
}

std::shared_ptr<BodyReceiver> Router::receiver(const Request& head) { return m_blobs.receiver(head); }

Response Router::handle(Request& request) {
    return guarded([&] { return answer(request); });
}

Response Router::answer(Request& request) {
    if (BlobEndpoints::isStoreTarget(request.target)) return m_blobs.serve(request);
    Match match;
    auto found = find(request, match);
    if (auto* refusal = std::get_if<Response>(&found)) return std::move(*refusal);
    const Route& route = *std::get<const Route*>(found);
    if (route.open) return (this->*route.open)(match, request);
    auto user = m_accounts.authenticate(request);
    if (auto* refusal = std::get_if<Response>(&user)) return std::move(*refusal);
    const User& who = std::get<User>(user);
    if (route.ofUser && match.parameters[0] != std::to_string(who.id)) return Response::error(403, "This is another user's.");
    return (this->*route.answer)(who, match, request);
}

Response Router::lock(const User& user, const Match& match, Request&) {
    return m_locks.lock(user, match.parameters[0], match.parameters[1]);
}

Response Router::unlock(const User& user, const Match& match, Request&) { return m_locks.unlock(user, match.parameters[1]); }

Response Router::changes(const User& user, const Match&, Request& request) { return m_changes.handle(user, request.body); }

Response Router::page(const User& user, const Match& match, Request&) {
    constexpr std::array<FormField, 2> fields{FormField{"page"}, FormField{"identifier", true}};
    const auto values = readForm(match.query, fields);
    return m_download.handle(user, values[0].value_or(""), values[1].value_or(""));
}

Response Router::schema(const User& user, const Match& match, Request& request) {
    return takeSchema(m_database, user, match.parameters[0], request.body.view());
}

Response Router::rollback(const User& user, const Match&, Request& request) {
    return rollBack(m_database, m_locks, m_directories, user, request.body.view());
}

Response Router::verify(const User& user, const Match&, Request&) { return m_accounts.verify(user); }

Response Router::signOut(const User& user, const Match&, Request&) { return m_accounts.signOut(user); }

Response Router::listing(const User& user, const Match&, Request& request) { return m_knownObjects.handle(user, request.body); }

Response Router::changePassword(const User& user, const Match&, Request& request) {
    return m_accounts.changePassword(user, request.body.view());
}

Response Router::deleteAllData(const User& user, const Match& match, Request&) {
    return service::deleteAllData(m_database, user, match.parameters[0]);
}

Response Router::deleteAccount(const User& user, const Match&, Request&) {
    deleteUser(m_database, user);
    return m_accounts.signOut(user);
}

Response Router::keepClient(const User& user, const Match&, Request& request) {
    return service::keepClient(m_database, user, request.body.view(), m_settings.now());
}

Response Router::clients(const User& user, const Match&, Request&) { return registeredClients(m_database, user); }

Response Router::passwordReset(const Match& match, Request&) { return m_accounts.askForReset(match.query); }

Response Router::signUp(const Match&, Request& request) { return m_accounts.signUp(request.body.view()); }

std::variant<BlobCall, Response> Router::blobCall(const Match& match, const Request& request) {
    if (request.origin.empty()) return Response::error(400, "The request names no host.");
    BlobCall call{std::nullopt, match.parameters[0], match.parameters[1], match.parameters[2], request.origin};
    if (BlobEndpoints::isAnonymous(request)) return call;
    auto user = m_accounts.authenticate(request);
    if (auto* refusal = std::get_if<Response>(&user)) return std::move(*refusal);
    call.user = std::move(std::get<User>(user));
    return call;
}

Response Router::readBlob(const Match& match, Request& request) {
    return withBlobCall(match, request, [&](const BlobCall& call) { return m_blobs.read(call); });
}

Response Router::writeBlob(const Match& match, Request& request) {
    return withBlobCall(match, request, [&](const BlobCall& call) { return m_blobs.write(call); });
}

Response Router::wroteBlob(const Match& match, Request& request) {
    return withBlobCall(match, request, [&](const BlobCall& call) { return m_blobs.wrote(call, request.body.view()); });
}

Response Router::deleteBlob(const Match& match, Request& request) {
    return withBlobCall(match, request, [&](const BlobCall& call) { return m_blobs.remove(call); });
}

}  // namespace velkor::service
