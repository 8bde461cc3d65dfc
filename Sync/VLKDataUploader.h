#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/base/Data.h"
#include "platform/base/Dictionary.h"
#include "platform/base/Error.h"
#include "platform/base/Export.h"
#include "platform/base/Object.h"
#include "platform/url/URLConnection.h"
#include "platform/url/URLRequest.h"

namespace velkor {

class VLKDataUploader;

/// Observes an upload's outcome, on the thread that started it.
class VELKOR_EXPORT VLKDataUploaderDelegate {
public:
    virtual ~VLKDataUploaderDelegate() = default;
    /// `body`: the answer's body as text; none when it is no UTF-8.
    virtual void imageUploaderUploadedFileToUrl(VLKDataUploader& uploader, const std::optional<std::string>& body) = 0;
    virtual void imageUploaderFailed(VLKDataUploader& uploader) = 0;
};

/// Posts bytes as a multipart form. Starts and ends on one thread, whose run loop must run: blocks, delegate and the progress
/// notifications (VLKDataUploaderDidUploadData, one for each written chunk) come there. Its owner keeps it alive until a block
/// has been called; letting go of it cancels the upload, and no block is called. An answer below 400 is a success, any other one
/// a failure of the library's error domain with the status as code; a failure is told once, and nothing is tried again. A new
/// `start()` drops what belonged to the earlier one.
class VELKOR_EXPORT VLKDataUploader : public NS::Object, public NS::URLConnectionDelegate {
public:
    using CompletionBlock = std::function<void()>;
    using FailureBlock = std::function<void(const NS::Error& error)>;

    VLKDataUploader(std::string url, NS::Data data);
    ~VLKDataUploader() override;  // cancels

    /// Sends the bytes on the current thread's run loop; time-out 240 s. Asserts that both blocks are set.
    void start();
    /// Ends the upload without a word. On the thread that started it.
    void cancel();
    /// The POST request that `start()` sends; it takes `formFields()` and `guid()` into account.
    NS::MutableURLRequest fileUploadRequestForUrl(std::string_view url, const NS::Data& data) const;

    const std::string& url() const noexcept { return m_url; }
    void setUrl(std::string url) { m_url = std::move(url); }
    const NS::Data& dataToSend() const noexcept { return m_dataToSend; }
    void setDataToSend(NS::Data data) { m_dataToSend = std::move(data); }
    /// Fields sent before the file, texts by name in this order. None (not: empty) selects the plain form without an opening
    /// boundary, which names the file after `guid()`.
    const std::optional<NS::Dictionary>& formFields() const noexcept { return m_formFields; }
    void setFormFields(std::optional<NS::Dictionary> fields) { m_formFields = std::move(fields); }
    /// The object whose bytes these are; for the plain form only.
    const std::optional<std::string>& guid() const noexcept { return m_guid; }
    void setGuid(std::optional<std::string> guid) { m_guid = std::move(guid); }
    /// Not owned; must live until the outcome or be cleared.
    VLKDataUploaderDelegate* delegate() const noexcept { return m_delegate; }
    void setDelegate(VLKDataUploaderDelegate* delegate) noexcept { m_delegate = delegate; }
    /// Both are required.
    const CompletionBlock& completionBlock() const noexcept { return m_completionBlock; }
    void setCompletionBlock(CompletionBlock block) { m_completionBlock = std::move(block); }
    const FailureBlock& failureBlock() const noexcept { return m_failureBlock; }
    void setFailureBlock(FailureBlock block) { m_failureBlock = std::move(block); }

    /// The running connection; null when idle or when the outcome was told.
    const std::shared_ptr<NS::URLConnection>& connection() const noexcept { return m_connection; }
    /// The answer's body as received so far.
    const NS::Data& data() const noexcept { return m_data; }
    /// Body bytes that are to be written in all, and those written so far; 0 before the first chunk.
    std::int64_t bytesToUpload() const noexcept { return m_bytesToUpload; }
    std::int64_t bytesUploaded() const noexcept { return m_bytesUploaded; }
    /// Whole megabytes (1,000,000 bytes) written so far.
    std::int64_t progress() const noexcept { return m_progress; }
    /// HTTP status of the answer; 0 before there is one.
    std::int64_t statusCode() const noexcept { return m_statusCode; }

    void connectionDidReceiveResponse(NS::URLConnection& connection, const NS::URLResponse& response) override;
    void connectionDidReceiveData(NS::URLConnection& connection, std::string_view bytes) override;
    void connectionDidSendBodyData(NS::URLConnection& connection, std::int64_t written, std::int64_t total,
                                   std::int64_t expected) override;
    void connectionDidFinishLoading(NS::URLConnection& connection) override;
    void connectionDidFailWithError(NS::URLConnection& connection, const NS::Error& error) override;
    std::string_view className() const noexcept override { return "VLKDataUploader"; }

private:
    void fail(const NS::Error& error);

    std::string m_url;
    NS::Data m_dataToSend;
    std::optional<NS::Dictionary> m_formFields;
    std::optional<std::string> m_guid;
    VLKDataUploaderDelegate* m_delegate = nullptr;
    CompletionBlock m_completionBlock;
    FailureBlock m_failureBlock;

    std::shared_ptr<NS::URLConnection> m_connection;
    std::shared_ptr<NS::URLConnection> m_refused;  // its failure was told; the rest of its answer is still to come
    NS::Data m_data;
    std::int64_t m_bytesToUpload = 0;
    std::int64_t m_bytesUploaded = 0;
    std::int64_t m_progress = 0;
    std::int64_t m_statusCode = 0;
};

}  // namespace velkor
