#pragma once

#include <string>
#include <string_view>

#include "Sync/VLKS3Uploader.h"
#include "platform/base/Export.h"

namespace velkor {

/// Deletes a blob from the blob store. Its completion block receives the body of the store's answer.
class VELKOR_EXPORT VLKS3Deleter : public VLKS3Uploader {
public:
    using VLKS3Uploader::VLKS3Uploader;
    VLKS3Deleter(std::string wsServerURL, std::string appId, std::string guid, std::string columnName);
    ~VLKS3Deleter() override;
    std::string_view className() const noexcept override { return "VLKS3Deleter"; }

protected:
    void begin() override;
};

}  // namespace velkor
