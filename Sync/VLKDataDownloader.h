#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "platform/base/Data.h"
#include "platform/base/Error.h"
#include "platform/base/Export.h"
#include "platform/base/Object.h"
#include "platform/url/URLConnection.h"

namespace velkor {

/// Fetches the bytes at a URL (at most 1 GiB). Starts and ends on one thread, whose run loop must run: blocks and the progress
/// notifications (VLKDataDownloaderDidDownloadData, one for each received chunk) come there. Its owner keeps it alive until a
/// block has been called; letting go of it cancels the download, and no block is called. A 2xx answer is a success, any other one
/// a failure of the domain "Error" with the status as code; a failure below HTTP is handed on unchanged. A new `start()` drops
/// what belonged to the earlier one.
class VELKOR_EXPORT VLKDataDownloader : public NS::Object, public NS::URLConnectionDelegate {
public:
    using CompletionBlock = std::function<void(const NS::Data& data)>;
    using FailureBlock = std::function<void(const NS::Error& error)>;

    static std::shared_ptr<VLKDataDownloader> downloadUrl(std::string url);
    ~VLKDataDownloader() override;  // cancels

    /// Sends a GET on the current thread's run loop; time-out 180 s.
    virtual void start();

    const std::string& url() const noexcept { return m_url; }
    void setUrl(std::string url) { m_url = std::move(url); }
    const CompletionBlock& completionBlock() const noexcept { return m_completionBlock; }
    void setCompletionBlock(CompletionBlock block) { m_completionBlock = std::move(block); }
    const FailureBlock& failureBlock() const noexcept { return m_failureBlock; }
    void setFailureBlock(FailureBlock block) { m_failureBlock = std::move(block); }

    /// The running connection; null when idle or finished.
    const std::shared_ptr<NS::URLConnection>& connection() const noexcept { return m_connection; }
    /// The bytes received so far; empty again after the outcome.
    const NS::Data& data() const noexcept { return m_data; }
    /// HTTP status of the answer; 0 before there is one.
    std::int64_t statusCode() const noexcept { return m_statusCode; }
    /// Length that the answer announces; negative when it names none.
    std::int64_t expectedBytes() const noexcept { return m_expectedBytes; }

    void connectionDidReceiveResponse(NS::URLConnection& connection, const NS::URLResponse& response) override;
    void connectionDidReceiveData(NS::URLConnection& connection, std::string_view bytes) override;
    void connectionDidFinishLoading(NS::URLConnection& connection) override;
    void connectionDidFailWithError(NS::URLConnection& connection, const NS::Error& error) override;
    std::string_view className() const noexcept override { return "VLKDataDownloader"; }

protected:
    explicit VLKDataDownloader(std::string url);
    void startWithMethod(std::string_view method);

private:
    void finish();

    std::string m_url;
    CompletionBlock m_completionBlock;
    FailureBlock m_failureBlock;

    std::shared_ptr<NS::URLConnection> m_connection;
    NS::Data m_data;
    std::int64_t m_statusCode = 0;
    std::int64_t m_expectedBytes = 0;
};

}  // namespace velkor
