#include "Sync/VLKS3Downloader.h"

#include "Sync/VLKDataDownloader.h"

namespace velkor {

VLKS3Downloader::VLKS3Downloader(std::string wsServerURL, std::string appId, std::string guid, std::string columnName)
    : VLKS3Transfer(std::move(wsServerURL), {}, std::move(appId), std::move(guid), std::move(columnName)) {}

VLKS3Downloader::~VLKS3Downloader() = default;

void VLKS3Downloader::begin() {
    fetch("read.json", VLKDataDownloader::downloadUrl, "Amazon S3 Error in downloading: %@", [this](const NS::Data& bytes) {
        if (const auto block = m_completionBlock) block(bytes);
    });
}

}  // namespace velkor
