#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "Sync/VLKS3Transfer.h"
#include "platform/base/Data.h"
#include "platform/base/Export.h"

namespace velkor {

/// Reads a blob from the blob store.
class VELKOR_EXPORT VLKS3Downloader : public VLKS3Transfer {
public:
    using CompletionBlock = std::function<void(const NS::Data& data)>;

    VLKS3Downloader(std::string wsServerURL, std::string appId, std::string guid, std::string columnName);
    ~VLKS3Downloader() override;

    /// Receives the blob's bytes.
    const CompletionBlock& completionBlock() const noexcept { return m_completionBlock; }
    void setCompletionBlock(CompletionBlock block) { m_completionBlock = std::move(block); }
    std::string_view className() const noexcept override { return "VLKS3Downloader"; }

protected:
    void begin() override;

private:
    CompletionBlock m_completionBlock;
};

}  // namespace velkor
