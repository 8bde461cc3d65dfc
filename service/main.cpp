// velkord: the sync service.
#include <cstdio>
#include <string>

#include "PelmoLib/encodings/VLKLog.h"
#include "service/Database.h"
#include "service/Expiry.h"
#include "service/HttpServer.h"
#include "service/Options.h"
#include "service/Router.h"

namespace {

using namespace velkor;
using namespace velkor::service;

int fail(const std::string& text) {
    std::fprintf(stderr, "velkord: %s\n", text.c_str());
    return 1;
}

int serve(Database& database, const Options& options) {
    Router::Settings settings;
    settings.leaseSeconds = options.leaseSeconds;
    settings.page = options.page;
    settings.maximumBody = options.maximumBody;
    Router router(database, settings);
    HttpServer::Settings address;
    address.host = options.host;
    address.port = options.port;
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
    auto database = url.empty() ? Database::open(options.value().dataDirectory) : Database::openServer(url);
    if (!database) return fail(database.error().localizedDescription());
    if (const auto& what = options.value().expire) {
        const auto done = expire(*database.value(), what->user, what->app, what->guid);
        return done ? 0 : fail(done.error().localizedDescription());
    }
    return serve(*database.value(), options.value());
}
