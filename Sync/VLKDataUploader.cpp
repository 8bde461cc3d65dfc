#include "Sync/VLKDataUploader.h"

#include "PelmoLib/encodings/VLKLog.h"
#include "Sync/VLKTransferProgress.h"
#include "platform/base/Exception.h"
#include "platform/base/Format.h"
#include "platform/base/UTF8.h"
#include "platform/base/Value.h"
#include "platform/concurrency/NotificationCenter.h"
#include "platform/concurrency/RunLoop.h"

namespace velkor {

namespace {

constexpr std::string_view boundary = "0xKhTmLbOuNdArY";
constexpr double uploadTimeout = 240;  // seconds
constexpr std::int64_t megabyte = 1'000'000;
constexpr std::int64_t firstFailureStatus = 400;
/// The blob store answers with a few lines.
constexpr std::uint64_t longestAnswer = 16 << 20;

/// What stands before and behind the bytes of an upload.
struct FormFrame {
    std::string opening;
    std::string closing;
};

FormFrame frameWithFields(const NS::Dictionary& fields) {
    FormFrame frame;
    for (const auto& [name, value] : fields) {
        frame.opening += NS::format("--%@\r\nContent-Disposition: form-data; name=\"%@\"\r\n\r\n%@\r\n", boundary, name, value);
    }
    frame.opening +=
        NS::format("--%@\r\nContent-Disposition: form-data; name=\"%@\"; filename=\"%@\"\r\nContent-Type: %@\r\n\r\n", boundary,
                   "file", "filename", "application/octet-stream");
    frame.closing = NS::format("\r\n--%@--", boundary);
    return frame;
}

FormFrame plainFrame(const std::optional<std::string>& guid) {
    return {
        NS::format("Content-Disposition: form-data; name=\"%@\"; filename=\"%@.png\"; guid=\"%@\"\r\n\r\n", "upload", guid, guid),
        NS::format("\r\n--%@--\r\n", boundary)};
}

std::optional<std::string> textOfAnswer(const NS::Data& data) {
    return NS::isValidUTF8(data.view()) ? std::optional(std::string(data.view())) : std::nullopt;
}

}  // namespace

VLKDataUploader::VLKDataUploader(std::string url, NS::Data data) : m_url(std::move(url)), m_dataToSend(std::move(data)) {}

VLKDataUploader::~VLKDataUploader() { cancel(); }

void VLKDataUploader::start() {
    NS::assertThat(m_failureBlock != nullptr, "self.failureBlock");
    NS::assertThat(m_completionBlock != nullptr, "self.completionBlock");
    cancel();
    m_data.clear();
    m_statusCode = m_progress = m_bytesToUpload = m_bytesUploaded = 0;
    auto request = fileUploadRequestForUrl(m_url, m_dataToSend);
    request.setTimeoutInterval(uploadTimeout);
    m_connection = std::make_shared<NS::URLConnection>(request, this);
    m_connection->scheduleInRunLoop(NS::RunLoop::current());
    m_connection->setMaximumResponseSize(longestAnswer);
    VLKLog::sharedInstance().logMessageAtLevel(300, "Uploading blob data...");
    m_connection->start();
}

void VLKDataUploader::cancel() {
    for (auto* connection : {&m_connection, &m_refused}) {
        if (*connection) (*connection)->cancel();
        connection->reset();
    }
}

NS::MutableURLRequest VLKDataUploader::fileUploadRequestForUrl(std::string_view url, const NS::Data& data) const {
    FormFrame frame = m_formFields ? frameWithFields(*m_formFields) : plainFrame(m_guid);
    NS::MutableURLRequest request{std::string(url)};
    request.setHTTPMethod("POST");
    request.setValueForHTTPHeaderField("application/json", "Accept");
    request.setValueForHTTPHeaderField(NS::format("multipart/form-data; boundary=%@", boundary), "Content-Type");
    request.setHTTPBodyParts({NS::Data(std::move(frame.opening)), data, NS::Data(std::move(frame.closing))});
    return request;
}

void VLKDataUploader::connectionDidReceiveResponse(NS::URLConnection& connection, const NS::URLResponse& response) {
    m_statusCode = response.statusCode;
    VLKLog::sharedInstance().logMessageAtLevel(300, "ResponseStatus: %u\n", m_statusCode);
    if (m_statusCode < firstFailureStatus) return;
    const auto error =
        NS::Error::withDescription(NS::VelkorErrorDomain, m_statusCode, NS::localizedStringForStatusCode(m_statusCode));
    connectionDidFailWithError(connection, error);
}

void VLKDataUploader::connectionDidReceiveData(NS::URLConnection&, std::string_view bytes) { m_data.append(bytes); }

void VLKDataUploader::connectionDidSendBodyData(NS::URLConnection&, std::int64_t, std::int64_t total, std::int64_t expected) {
    const std::int64_t megabytes = total / megabyte;
    if (megabytes != m_progress) {
        VLKLog::sharedInstance().logMessageAtLevel(400, "Wrote blob data: %dMB of %d MB", megabytes, expected / megabyte);
    }
    m_progress = megabytes;
    m_bytesToUpload = expected;
    m_bytesUploaded = total;
    NS::NotificationCenter::defaultCenter().post(VLKDataUploaderDidUploadData, this,
                                                 {{VLKBytesUploaded, total}, {VLKTotalBytes, expected}});
}

void VLKDataUploader::connectionDidFinishLoading(NS::URLConnection&) {
    if (m_statusCode >= firstFailureStatus) return m_refused.reset();  // told already
    // A block may let go of this uploader, or start it again.
    const auto kept = weak_from_this().lock();
    const auto finished = m_connection;
    const auto text = textOfAnswer(m_data);
    VLKLog::sharedInstance().logMessageAtLevel(300, "Blob upload completed.");
    VLKLog::sharedInstance().logMessageAtLevel(400, "DATA RECEIVED: %@", text);
    if (m_delegate) m_delegate->imageUploaderUploadedFileToUrl(*this, text);
    if (m_connection != finished) return;
    if (const auto block = m_completionBlock) block();
    if (m_connection != finished) return;
    m_connection.reset();
    m_data.clear();
}

void VLKDataUploader::connectionDidFailWithError(NS::URLConnection&, const NS::Error& error) {
    if (m_refused) return m_refused.reset();  // a failure is told once
    fail(error);
}

void VLKDataUploader::fail(const NS::Error& error) {
    const auto kept = weak_from_this().lock();
    const auto failed = m_connection;
    if (m_statusCode >= firstFailureStatus) m_refused = m_connection;  // the rest of its answer still comes
    auto& log = VLKLog::sharedInstance();
    log.logMessageAtLevel(300, "Blob upload failed. %@", error);
    log.logMessageAtLevel(300, "DATA RECEIVED: %@", textOfAnswer(m_data));
    log.logMessageAtLevel(300, "S3 Signature data: %@", m_formFields);
    if (m_delegate) m_delegate->imageUploaderFailed(*this);
    if (m_connection != failed) return;
    if (const auto block = m_failureBlock) {
        block(error);
    } else {
        log.logMessageAtLevel(100, "Blob upload failed but no failure block exists!?");
    }
    if (m_connection == failed) m_connection.reset();
}

}  // namespace velkor
