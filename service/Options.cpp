#include "service/Options.h"

#include <charconv>
#include <cstdlib>
#include <functional>
#include <map>

namespace velkor::service {
namespace {

NS::Error wrong(const std::string& text) { return NS::Error::withDescription(NS::PlatformErrorDomain, 2, text); }

std::string defaultDataDirectory() {
    if (const char* data = std::getenv("XDG_DATA_HOME"); data && *data) return std::string(data) + "/velkord";
    const char* home = std::getenv("HOME");
    return std::string(home && *home ? home : ".") + "/.local/share/velkord";
}

template <class Number>
bool readNumber(const std::string& text, Number low, Number high, Number& out) {
    Number value{};
    const char* end = text.data() + text.size();
    auto [stop, code] = std::from_chars(text.data(), end, value);
    if (code != std::errc() || stop != end || value < low || value > high) return false;
    out = value;
    return true;
}

/// HOST:PORT; an IPv6 address stands in brackets.
bool readListen(const std::string& text, Options& options) {
    const auto colon = text.rfind(':');
    if (colon == text.npos || colon == 0) return false;
    std::string host = text.substr(0, colon);
    if (host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    options.host = host;
    return readNumber<std::uint16_t>(text.substr(colon + 1), 0, 65535, options.port);
}

using Setter = std::function<bool(const std::string& value)>;

std::map<std::string, Setter, std::less<>> settersOf(Options& options) {
    auto text = [](std::string& place) {
        return [&place](const std::string& value) {
            place = value;
            return !value.empty();
        };
    };
    std::map<std::string, Setter, std::less<>> setters{{"--data", text(options.dataDirectory)},
                                                       {"--database", text(options.databaseUrl)}};
    if (options.expire) {
        setters["--user"] = text(options.expire->user);
        setters["--app"] = text(options.expire->app);
        setters["--guid"] = text(options.expire->guid);
        return setters;
    }
    if (options.resetUser) {
        setters["--user"] = text(*options.resetUser);
        return setters;
    }
    constexpr std::int64_t many = std::int64_t(1) << 40;
    setters["--blob-store"] = text(options.blobStoreUrl);
    setters["--listen"] = [&](const std::string& value) { return readListen(value, options); };
    setters["--lease"] = [&](const std::string& value) {
        return readNumber<std::int64_t>(value, 1, 86400, options.leaseSeconds);
    };
    setters["--page"] = [&](const std::string& value) { return readNumber<std::int64_t>(value, 1, 1000000, options.page); };
    setters["--max-body"] = [&](const std::string& value) {
        return readNumber<std::int64_t>(value, 1, many, options.maximumBody);
    };
    setters["--max-blob"] = [&](const std::string& value) {
        return readNumber<std::int64_t>(value, 1, many, options.maximumBlob);
    };
    setters["--log-level"] = [&](const std::string& value) { return readNumber<std::int32_t>(value, 0, 1000, options.logLevel); };
    return setters;
}

}  // namespace

NS::Result<Options> Options::parse(std::span<const char* const> arguments) {
    Options options;
    options.dataDirectory = defaultDataDirectory();
    if (arguments.size() == 1 && std::string_view(arguments[0]) == "--help") {
        options.help = true;
        return options;
    }
    if (!arguments.empty() && std::string_view(arguments[0]) == "expire") {
        options.expire.emplace();
        arguments = arguments.subspan(1);
    } else if (!arguments.empty() && std::string_view(arguments[0]) == "reset-password") {
        options.resetUser.emplace();
        arguments = arguments.subspan(1);
    }
    const auto setters = settersOf(options);
    for (std::size_t i = 0; i < arguments.size(); i += 2) {
        auto setter = setters.find(std::string_view(arguments[i]));
        if (setter == setters.end()) return wrong("unknown option " + std::string(arguments[i]));
        if (i + 1 == arguments.size()) return wrong("no value for " + std::string(arguments[i]));
        if (!setter->second(arguments[i + 1])) return wrong("bad value for " + std::string(arguments[i]));
    }
    if (options.expire && (options.expire->user.empty() || options.expire->app.empty() || options.expire->guid.empty())) {
        return wrong("expire needs --user, --app and --guid");
    }
    if (options.resetUser && options.resetUser->empty()) return wrong("reset-password needs --user");
    return options;
}

std::string_view Options::usage() {
    return "usage: velkord [--data DIR] [--listen HOST:PORT] [--database URL] [--blob-store URL] [--lease SECONDS] [--page N]\n"
           "               [--max-body BYTES] [--max-blob BYTES] [--log-level N]\n"
           "       velkord expire --user EMAIL --app APP --guid GUID [--data DIR | --database URL]\n"
           "       velkord reset-password --user EMAIL [--data DIR | --database URL]";
}

std::string Options::helpText() {
    return std::string(usage()) + R"(

Serves the sync protocol over HTTP from an embedded SQLite database, or from PostgreSQL, and keeps blobs in files or in a bucket.
`expire` marks an object as expired for all clients of a user, `reset-password` gives a user a new password and prints it.

  --data DIR           directory of the database and the blobs, made when missing ($XDG_DATA_HOME/velkord)
  --listen HOST:PORT   address; port 0 takes a free one and prints it (127.0.0.1:8330)
  --database URL       keeps accounts and data in this PostgreSQL database, which several velkord may share (postgresql://...)
  --blob-store URL     keeps blobs in this bucket of an S3-compatible store, with credentials from the environment
                       (s3://BUCKET[/PREFIX][?endpoint=URL][&region=REGION])
  --lease SECONDS      silence after which another client may take a user's lock (120)
  --page N             transactions that one answer carries at most; more are fetched page by page (500)
  --max-body BYTES     longest request body (1 GiB)
  --max-blob BYTES     longest blob (5 GiB)
  --log-level N        100 errors to 400 everything, on standard error (100)
)";
}

}  // namespace velkor::service
