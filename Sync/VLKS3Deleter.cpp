#include "Sync/VLKS3Deleter.h"

#include "Sync/VLKDataDeleter.h"

namespace velkor {

VLKS3Deleter::VLKS3Deleter(std::string wsServerURL, std::string appId, std::string guid, std::string columnName)
    : VLKS3Uploader(std::move(wsServerURL), {}, std::move(appId), std::move(guid), std::move(columnName)) {}

VLKS3Deleter::~VLKS3Deleter() = default;

void VLKS3Deleter::begin() {
    fetch("delete.json", VLKDataDeleter::downloadUrl, "Amazon S3 Error in deleting: %@",
          [this](const NS::Data& answer) { complete(answer); });
}

}  // namespace velkor
