#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/base/Result.h"
#include "service/S3Signature.h"

namespace velkor::service {

/// Where a bucket is and who may use it.
struct S3Bucket {
    std::string endpoint;  // scheme and host, with a port that is not the scheme's own; no slash at the end
    std::string bucket;
    std::string prefix;  // of all keys; empty, or ends with a slash
    S3Account account;

    using Environment = std::function<std::optional<std::string>(const char* name)>;
    /// Reads s3://BUCKET[/PREFIX][?endpoint=URL][&region=REGION]. The environment has the credentials (AWS_ACCESS_KEY_ID and
    /// AWS_SECRET_ACCESS_KEY), and what the URL leaves out (AWS_ENDPOINT_URL, AWS_REGION). The error's text says what is missing,
    /// and repeats nothing of the URL.
    static NS::Result<S3Bucket> parse(std::string_view url, const Environment& environment);

    std::string_view host() const;
};

/// A bucket of an S3-compatible store, reached by clients through requests that the service signs, and by the service itself
/// through the same. The bucket is in the path, never in the host's name. Any thread.
class S3BlobStore : public BlobStore {
public:
    S3BlobStore(S3Bucket bucket, std::uint64_t maximumBlob, Clock now);

    BlobForm uploadForm(const std::string& name, const std::string& origin) override;
    std::string readURL(const std::string& name, const std::string& hash, const std::string& origin) override;
    std::string deleteURL(const std::string& name, const std::string& origin) override;
    /// The store knows no SHA-1: it tells whether there is such a blob.
    bool holds(const std::string& name, const std::string& hash) override;
    void remove(std::span<const std::string> names) override;

private:
    std::string url(std::string_view method, const std::string& name) const;

    const S3Bucket m_bucket;
    const std::uint64_t m_maximumBlob;
    const Clock m_now;
};

}  // namespace velkor::service
