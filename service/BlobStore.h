#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "service/HttpMessage.h"

namespace velkor::service {

/// Seconds for which a presigned request may be started.
inline constexpr std::int64_t blobURLSeconds = 900;

/// A presigned multipart form: whoever posts the fields and then a file part to the URL stores one blob.
struct BlobForm {
    std::string url;
    std::vector<std::pair<std::string, std::string>> fields;
};

/// The blob store cannot do what it was asked. The text is made for the log.
class BlobStoreFailure : public std::exception {
public:
    explicit BlobStoreFailure(std::string text) : m_text(std::move(text)) {}
    const char* what() const noexcept override { return m_text.c_str(); }

private:
    std::string m_text;
};

/// Where the bytes of blobs lie, each blob under a name that is a UUID. Clients reach them through presigned requests, each good
/// for one name and one method and for `blobURLSeconds`. `origin` is the scheme and host by which the client reached the service.
/// Any thread.
class BlobStore {
public:
    using Clock = std::function<std::int64_t()>;  // milliseconds since 1970

    virtual ~BlobStore() = default;

    virtual BlobForm uploadForm(const std::string& name, const std::string& origin) = 0;
    /// `hash` is what the blob was confirmed with: the lower-case SHA-1.
    virtual std::string readURL(const std::string& name, const std::string& hash, const std::string& origin) = 0;
    virtual std::string deleteURL(const std::string& name, const std::string& origin) = 0;

    /// Whether the blob has arrived, as far as the store can tell with this hash. Raises BlobStoreFailure.
    virtual bool holds(const std::string& name, const std::string& hash) = 0;
    /// Removes the blobs; those that are not there count as removed. Raises BlobStoreFailure when one may be left.
    virtual void remove(std::span<const std::string> names) = 0;

    /// What takes the body of a presigned upload to the service's own address; null when this store takes none there.
    virtual std::shared_ptr<BodyReceiver> receiver(const Request&) { return nullptr; }
    /// The answer to any other presigned request to the service's own address; none when this store serves none there.
    virtual std::optional<Response> serve(const Request&) { return std::nullopt; }
};

}  // namespace velkor::service
