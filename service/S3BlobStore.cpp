#include "service/S3BlobStore.h"

#include <curl/curl.h>

#include <array>

#include "platform/base/Exception.h"
#include "service/Forms.h"

namespace velkor::service {
namespace {

constexpr long patienceSeconds = 30;

NS::Error wrongBucket(const std::string& text) { return NS::Error::withDescription(NS::PlatformErrorDomain, 2, text); }

/// The endpoint as clients' Host headers will name it; none for what is no URL of a host.
std::optional<std::string> normalizedEndpoint(std::string url) {
    while (url.ends_with('/')) url.pop_back();
    for (const auto& [scheme, port] : {std::pair("https://", ":443"), std::pair("http://", ":80")}) {
        if (!url.starts_with(scheme)) continue;
        if (url.ends_with(port)) url.resize(url.size() - std::string_view(port).size());
        const auto host = std::string_view(url).substr(std::string_view(scheme).size());
        if (host.empty() || host.find_first_of("/?#@ ") != host.npos) return std::nullopt;
        return url;
    }
    return std::nullopt;
}

/// The service's own requests, one after the other over a kept connection.
class S3Client {
public:
    S3Client() : m_curl(curl_easy_init()) {
        if (!m_curl) throw BlobStoreFailure("no memory for a request");
    }
    ~S3Client() { curl_easy_cleanup(m_curl); }
    S3Client(const S3Client&) = delete;
    S3Client& operator=(const S3Client&) = delete;

    /// The status of the answer, whose body is dropped.
    long send(const char* method, const std::string& url) {
        curl_easy_reset(m_curl);
        curl_easy_setopt(m_curl, CURLOPT_URL, url.c_str());
        curl_easy_setopt(m_curl, CURLOPT_CUSTOMREQUEST, method);
        curl_easy_setopt(m_curl, CURLOPT_NOBODY, std::string_view(method) == "HEAD" ? 1L : 0L);
        curl_easy_setopt(m_curl, CURLOPT_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(m_curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(m_curl, CURLOPT_CONNECTTIMEOUT, patienceSeconds);
        curl_easy_setopt(m_curl, CURLOPT_TIMEOUT, patienceSeconds);
        curl_easy_setopt(
            m_curl, CURLOPT_WRITEFUNCTION, +[](char*, std::size_t size, std::size_t count, void*) { return size * count; });
        // The client library's own words hold the signed URL at times.
        if (const CURLcode code = curl_easy_perform(m_curl); code != CURLE_OK) throw BlobStoreFailure(curl_easy_strerror(code));
        long status = 0;
        curl_easy_getinfo(m_curl, CURLINFO_RESPONSE_CODE, &status);
        return status;
    }

private:
    CURL* m_curl;
};

[[noreturn]] void failWithStatus(long status) {
    throw BlobStoreFailure("the store answered with status " + std::to_string(status));
}

}  // namespace

NS::Result<S3Bucket> S3Bucket::parse(std::string_view url, const Environment& environment) {
    constexpr std::string_view scheme = "s3://";
    if (!url.starts_with(scheme)) return wrongBucket("the blob store's URL begins with s3://");
    url.remove_prefix(scheme.size());
    const auto question = std::min(url.find('?'), url.size());
    const auto path = url.substr(0, question);
    const auto slash = std::min(path.find('/'), path.size());

    S3Bucket bucket;
    bucket.bucket = path.substr(0, slash);
    if (bucket.bucket.empty() || bucket.bucket.find_first_of(":@ ") != std::string::npos) {
        return wrongBucket("the blob store's URL names no bucket: s3://BUCKET");
    }
    bucket.prefix = path.substr(std::min(slash + 1, path.size()));
    if (!bucket.prefix.empty() && !bucket.prefix.ends_with('/')) bucket.prefix += '/';

    constexpr std::array<FormField, 2> fields{FormField{"endpoint", true}, FormField{"region"}};
    const auto values = readForm(url.substr(std::min(question + 1, url.size())), fields);
    auto setting = [&](const std::optional<std::string>& given, const char* name) {
        return given && !given->empty() ? *given : environment(name).value_or("");
    };
    bucket.account.region = setting(values[1], "AWS_REGION");
    if (bucket.account.region.empty()) bucket.account.region = "us-east-1";
    std::string endpoint = setting(values[0], "AWS_ENDPOINT_URL");
    if (endpoint.empty()) endpoint = "https://s3." + bucket.account.region + ".amazonaws.com";
    const auto normalized = normalizedEndpoint(std::move(endpoint));
    if (!normalized) return wrongBucket("the blob store's endpoint is no URL of a host: http(s)://HOST[:PORT]");
    bucket.endpoint = *normalized;

    bucket.account.accessKey = environment("AWS_ACCESS_KEY_ID").value_or("");
    bucket.account.secretKey = environment("AWS_SECRET_ACCESS_KEY").value_or("");
    if (bucket.account.accessKey.empty() || bucket.account.secretKey.empty()) {
        return wrongBucket("the blob store needs AWS_ACCESS_KEY_ID and AWS_SECRET_ACCESS_KEY in the environment");
    }
    return bucket;
}

std::string_view S3Bucket::host() const { return std::string_view(endpoint).substr(endpoint.find("://") + 3); }

S3BlobStore::S3BlobStore(S3Bucket bucket, std::uint64_t maximumBlob, Clock now)
    : m_bucket(std::move(bucket)), m_maximumBlob(maximumBlob), m_now(std::move(now)) {
    // Once, before threads use the client library.
    static const CURLcode ready = curl_global_init(CURL_GLOBAL_DEFAULT);
    NS::assertThat(ready == CURLE_OK, "the HTTP client library works");
}

BlobForm S3BlobStore::uploadForm(const std::string& name, const std::string&) {
    return {m_bucket.endpoint + '/' + s3EscapedPath(m_bucket.bucket),
            presignedS3Form(m_bucket.account, m_bucket.bucket, m_bucket.prefix + name, m_now(), blobURLSeconds, m_maximumBlob)};
}

std::string S3BlobStore::readURL(const std::string& name, const std::string&, const std::string&) { return url("GET", name); }

std::string S3BlobStore::deleteURL(const std::string& name, const std::string&) { return url("DELETE", name); }

bool S3BlobStore::holds(const std::string& name, const std::string&) {
    const long status = S3Client().send("HEAD", url("HEAD", name));
    if (status != 200 && status != 404) failWithStatus(status);
    return status == 200;
}

void S3BlobStore::remove(std::span<const std::string> names) {
    S3Client client;
    for (const auto& name : names) {
        const long status = client.send("DELETE", url("DELETE", name));
        if ((status < 200 || status > 299) && status != 404) failWithStatus(status);
    }
}

std::string S3BlobStore::url(std::string_view method, const std::string& name) const {
    const std::string path = '/' + m_bucket.bucket + '/' + m_bucket.prefix + name;
    return m_bucket.endpoint + s3EscapedPath(path) + '?' +
           presignedS3Query(m_bucket.account, method, m_bucket.host(), path, m_now(), blobURLSeconds);
}

}  // namespace velkor::service
