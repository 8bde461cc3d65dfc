#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "platform/base/Result.h"
#include "service/BlobDirectory.h"
#include "service/BlobStore.h"

namespace velkor::service {

/// The embedded blob store: files in a directory, reached through the service's own address by URLs that it signs with a key kept
/// beside them. Uploads are posted to "/blobs", blobs are read and deleted at "/blobs/...".
class DiskBlobStore : public BlobStore {
public:
    struct Settings {
        std::uint64_t maximumBlob = std::uint64_t(5) << 30;  // bytes
        Clock now;
        /// Whether bytes for this name are still wanted; asked before and after an upload. May raise.
        std::function<bool(const std::string& name)> isWanted;
    };

    /// Opens the store under the directory, which is made when missing.
    static NS::Result<std::unique_ptr<DiskBlobStore>> open(const std::filesystem::path& directory, Settings settings);

    BlobForm uploadForm(const std::string& name, const std::string& origin) override;
    std::string readURL(const std::string& name, const std::string& hash, const std::string& origin) override;
    std::string deleteURL(const std::string& name, const std::string& origin) override;
    bool holds(const std::string& name, const std::string& hash) override;
    void remove(std::span<const std::string> names) override;
    std::shared_ptr<BodyReceiver> receiver(const Request& head) override;
    std::optional<Response> serve(const Request& request) override;

private:
    class Upload;
    DiskBlobStore(std::unique_ptr<BlobDirectory> directory, std::string key, Settings settings)
        : m_directory(std::move(directory)), m_key(std::move(key)), m_settings(std::move(settings)) {}

    std::string expiry() const;
    std::string signature(std::string_view method, std::string_view name, std::string_view expires) const;
    std::string signedURL(std::string_view method, std::string_view name, const std::string& origin) const;
    /// Whether the signature is this method's and name's, and the time has not come.
    bool isGood(std::string_view method, std::string_view name, std::string_view expires, std::string_view signature) const;

    const std::unique_ptr<BlobDirectory> m_directory;
    const std::string m_key;
    const Settings m_settings;
};

}  // namespace velkor::service
