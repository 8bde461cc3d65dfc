// velkord: the sync service.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "PelmoLib/encodings/VLKLog.h"
#include "service/Accounts.h"
#include "service/BlobSweeper.h"
#include "service/BlobTable.h"
#include "service/Database.h"
#include "service/DiskBlobStore.h"
#include "service/Expiry.h"
#include "service/HttpServer.h"
#include "service/Options.h"
#include "service/Router.h"
#include "service/S3BlobStore.h"

namespace {

using namespace velkor;
using namespace velkor::service;

constexpr std::uint64_t mostBodies = 4;  // of the largest size, in memory at one time

int fail(const std::string& text) {
    std::fprintf(stderr, "velkord: %s\n", text.c_str());
    return 1;
}

NS::Result<std::unique_ptr<BlobStore>> openBlobStore(Database& database, const Options& options) {
    if (!options.blobStoreUrl.empty()) {
        auto bucket = S3Bucket::parse(options.blobStoreUrl, [](const char* name) -> std::optional<std::string> {
            const char* value = std::getenv(name);
            return value ? std::optional<std::string>(value) : std::nullopt;
        });
        if (!bucket) return bucket.error();
        return std::unique_ptr<BlobStore>(std::make_unique<S3BlobStore>(
            std::move(bucket).value(), static_cast<std::uint64_t>(options.maximumBlob), Locks::systemMilliseconds));
    }
    DiskBlobStore::Settings settings;
    settings.maximumBlob = static_cast<std::uint64_t>(options.maximumBlob);
    settings.now = Locks::systemMilliseconds;
    settings.isWanted = [&](const std::string& name) {
        return database.read([&](Connection& connection) { return BlobTable::isUpload(connection, name); });
    };
    auto store = DiskBlobStore::open(options.dataDirectory + "/blobs", std::move(settings));
    if (!store) return store.error();
    return std::unique_ptr<BlobStore>(std::move(store).value());
}

int serve(Database& database, const Options& options) {
    const auto blobStore = openBlobStore(database, options);
    if (!blobStore) return fail(blobStore.error().localizedDescription());
    Router::Settings settings;
    settings.leaseSeconds = options.leaseSeconds;
    settings.page = options.page;
    settings.maximumBody = options.maximumBody;
    Router router(database, *blobStore.value(), settings);
    BlobSweeper sweeper(database, *blobStore.value(), Locks::systemMilliseconds);
    sweeper.start();
    HttpServer::Settings address;
    address.host = options.host;
    address.port = options.port;
    address.bodies = mostBodies * static_cast<std::uint64_t>(options.maximumBody);
    HttpServer server(router, address);
    const auto port = server.listen();
    if (!port) return fail(port.error().localizedDescription());
    const bool isIPv6 = options.host.find(':') != options.host.npos;
    std::printf("velkord: listening on http://%s%s%s:%u\n", isIPv6 ? "[" : "", options.host.c_str(), isIPv6 ? "]" : "",
                port.value());
    std::fflush(stdout);
    server.run();
    return 0;
}

}  // namespace

int main(int count, char** arguments) {
    const auto options = Options::parse(std::span<const char* const>(arguments + 1, static_cast<std::size_t>(count - 1)));
    if (!options) {
        std::fprintf(stderr, "velkord: %s\n%s\n", options.error().localizedDescription().c_str(), Options::usage().data());
        return 2;
    }
    if (options.value().help) return std::fputs(Options::helpText().c_str(), stdout) < 0;
    VLKLog::sharedInstance().setLogLevel(options.value().logLevel);
    const std::string& url = options.value().databaseUrl;
    const bool serves = !options.value().expire && !options.value().resetUser;
    if (!serves && url.empty() && !Database::isIn(options.value().dataDirectory)) {
        return fail("there is no database in " + options.value().dataDirectory);
    }
    auto database = url.empty() ? Database::open(options.value().dataDirectory) : Database::openServer(url);
    if (!database) return fail(database.error().localizedDescription());
    try {
        if (const auto& what = options.value().expire) {
            const auto done = expire(*database.value(), what->user, what->app, what->guid);
            return done ? 0 : fail(done.error().localizedDescription());
        }
        if (const auto& user = options.value().resetUser) {
            const auto password = Accounts::resetPassword(*database.value(), *user);
            if (!password) return fail(password.error().localizedDescription());
            return std::printf("%s\n", password.value().c_str()) < 0;
        }
        return serve(*database.value(), options.value());
    } catch (const DatabaseFailure& failure) {
        return fail(std::string("the database failed: ") + failure.what());
    }
}
