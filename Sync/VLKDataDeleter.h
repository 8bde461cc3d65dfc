#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "Sync/VLKDataDownloader.h"
#include "platform/base/Export.h"

namespace velkor {

/// Sends a DELETE to a URL. Everything else is the downloader's: the completion block receives the (usually empty) body of a 2xx
/// answer.
class VELKOR_EXPORT VLKDataDeleter : public VLKDataDownloader {
public:
    static std::shared_ptr<VLKDataDeleter> downloadUrl(std::string url);
    /// Sends a DELETE on the current thread's run loop; time-out 180 s.
    void start() override;
    std::string_view className() const noexcept override { return "VLKDataDeleter"; }

protected:
    using VLKDataDownloader::VLKDataDownloader;
};

}  // namespace velkor
