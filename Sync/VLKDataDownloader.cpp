#include "Sync/VLKDataDownloader.h"

#include <algorithm>

#include "PelmoLib/encodings/VLKLog.h"
#include "Sync/VLKTransferProgress.h"
#include "platform/base/Format.h"
#include "platform/base/Value.h"
#include "platform/concurrency/NotificationCenter.h"
#include "platform/concurrency/RunLoop.h"
#include "platform/url/URLRequest.h"

namespace velkor {

namespace {

constexpr double downloadTimeout = 180;  // seconds
/// Room that is set aside at once for an answer of announced length; a longer one grows.
constexpr std::int64_t mostRoomAtOnce = 256 << 20;

}  // namespace

VLKDataDownloader::VLKDataDownloader(std::string url) : m_url(std::move(url)) {}

std::shared_ptr<VLKDataDownloader> VLKDataDownloader::downloadUrl(std::string url) {
    return std::shared_ptr<VLKDataDownloader>(new VLKDataDownloader(std::move(url)));
}

VLKDataDownloader::~VLKDataDownloader() {
    if (m_connection) m_connection->cancel();
}

void VLKDataDownloader::start() { startWithMethod("GET"); }

void VLKDataDownloader::startWithMethod(std::string_view method) {
    if (m_connection) m_connection->cancel();
    m_data.clear();
    m_expectedBytes = 0;
    NS::MutableURLRequest request(m_url);
    request.setHTTPMethod(method);
    request.setTimeoutInterval(downloadTimeout);
    m_connection = std::make_shared<NS::URLConnection>(request, this);
    m_connection->scheduleInRunLoop(NS::RunLoop::current());
    m_statusCode = 0;
    m_connection->start();
}

void VLKDataDownloader::connectionDidReceiveResponse(NS::URLConnection&, const NS::URLResponse& response) {
    m_statusCode = response.statusCode;
    m_expectedBytes = response.expectedContentLength;
    if (m_expectedBytes > 0) m_data.reserve(static_cast<std::size_t>(std::min(m_expectedBytes, mostRoomAtOnce)));
}

void VLKDataDownloader::connectionDidReceiveData(NS::URLConnection&, std::string_view bytes) {
    m_data.append(bytes);
    NS::NotificationCenter::defaultCenter().post(VLKDataDownloaderDidDownloadData, this,
                                                 {{VLKBytesDownloaded, m_data.size()}, {VLKTotalBytes, m_expectedBytes}});
}

void VLKDataDownloader::connectionDidFinishLoading(NS::URLConnection&) {
    // A block may let go of this downloader, or start it again.
    const auto kept = weak_from_this().lock();
    const auto finished = m_connection;
    const NS::Data received = m_data;
    VLKLog::sharedInstance().logMessageAtLevel(300, "Amazon S3 operation completed.");
    if (m_statusCode >= 200 && m_statusCode <= 299) {
        if (const auto block = m_completionBlock) block(received);
    } else if (const auto block = m_failureBlock) {
        block(NS::Error::withDescription("Error", m_statusCode,
                                         NS::format("Server side error: %ld accessing: %@", m_statusCode, m_url)));
    }
    if (m_connection == finished) finish();
}

void VLKDataDownloader::connectionDidFailWithError(NS::URLConnection&, const NS::Error& error) {
    VLKLog::sharedInstance().logMessageAtLevel(100, "Amazon S3 operation failed with error: %@", error.localizedDescription());
    finish();
    if (const auto block = m_failureBlock) block(error);
}

void VLKDataDownloader::finish() {
    m_connection.reset();
    m_data.clear();
}

}  // namespace velkor
