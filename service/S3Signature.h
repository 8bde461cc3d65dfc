#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "service/BlobStore.h"

namespace velkor::service {

/// Who signs requests to an S3-compatible store (AWS Signature Version 4), and for where.
struct S3Account {
    std::string accessKey, secretKey;
    std::string region;
};

/// The query of a URL, without "?", that allows anybody the method on the path for so many seconds. `path` is not escaped yet,
/// `host` is what the client sends as such; the time is in milliseconds since 1970.
std::string presignedS3Query(const S3Account& account, std::string_view method, std::string_view host, std::string_view path,
                             std::int64_t now, std::int64_t seconds);

/// The fields of a form that allows anybody to store one object of at most `maximumSize` bytes under the key.
std::vector<std::pair<std::string, std::string>> presignedS3Form(const S3Account& account, std::string_view bucket,
                                                                 std::string_view key, std::int64_t now, std::int64_t seconds,
                                                                 std::uint64_t maximumSize);

/// The signature of a text, for a day and region: 64 lower-case digits.
std::string s3Signature(const S3Account& account, std::string_view day, std::string_view text);

/// The path with all but letters, digits, "-._~" and "/" escaped.
std::string s3EscapedPath(std::string_view path);

}  // namespace velkor::service
