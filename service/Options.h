#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "platform/base/Result.h"

namespace velkor::service {

/// What the command line says.
struct Options {
    std::string dataDirectory;  // absolute or relative; made when missing
    std::string databaseUrl;    // of a PostgreSQL database; empty for the embedded one
    std::string blobStoreUrl;   // of an S3 bucket; empty for the embedded store
    std::string host = "127.0.0.1";
    std::uint16_t port = 8330;        // 0 takes a free one
    std::int64_t leaseSeconds = 120;  // silence after which another instance may take a lock
    std::int64_t page = 500;          // transactions that one answer or page carries at most
    std::int64_t maximumBody = std::int64_t(1) << 30;
    std::int64_t maximumBlob = std::int64_t(5) << 30;
    std::int32_t logLevel = 100;

    bool help = false;

    /// Set for `velkord expire`.
    struct Expire {
        std::string user, app, guid;
    };
    std::optional<Expire> expire;
    /// The user's address; set for `velkord reset-password`.
    std::optional<std::string> resetUser;

    /// Reads the arguments behind the program's name; the error's text says what is wrong.
    static NS::Result<Options> parse(std::span<const char* const> arguments);
    static std::string_view usage();
    /// The usage and what each option means.
    static std::string helpText();
};

}  // namespace velkor::service
