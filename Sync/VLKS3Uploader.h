#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Sync/VLKS3Transfer.h"
#include "platform/base/Dictionary.h"
#include "platform/base/Export.h"
#include "platform/base/Value.h"
#include "platform/concurrency/OperationQueue.h"

namespace velkor {

/// Writes a blob to the blob store and then confirms it, with its SHA-1, to the sync service.
class VELKOR_EXPORT VLKS3Uploader : public VLKS3Transfer {
public:
    /// Receives the service's confirmation, a dictionary; of a deletion the blob store's answer, a data.
    using CompletionBlock = std::function<void(const NS::Value& answer)>;

    VLKS3Uploader(std::string wsServerURL, std::string amazonURL, std::string appId, std::string guid, std::string columnName);
    ~VLKS3Uploader() override;

    const CompletionBlock& completionBlock() const noexcept { return m_completionBlock; }
    void setCompletionBlock(CompletionBlock block) { m_completionBlock = std::move(block); }
    /// Spoils the presigned signature, so that the blob store refuses the upload: for tests of the failure's handling.
    bool simulateFailure() const noexcept { return m_simulateFailure; }
    void setSimulateFailure(bool simulate) noexcept { m_simulateFailure = simulate; }
    /// The presigned form fields of the last upload; none before there are any.
    const std::optional<NS::Dictionary>& signatureData() const noexcept { return m_signatureData; }
    std::string_view className() const noexcept override { return "VLKS3Uploader"; }

protected:
    void begin() override;
    void complete(const NS::Value& answer);

private:
    using HashBlock = std::function<void(const std::string& hash)>;

    void upload(const NS::Dictionary& answer);
    void computeHash();
    void confirmWhenReady();
    void failWithMessage(std::string_view format, const NS::Error& error);

    CompletionBlock m_completionBlock;
    bool m_simulateFailure = false;
    std::optional<NS::Dictionary> m_signatureData;
    // Of the running upload; main thread only.
    bool m_isStored = false;
    std::optional<std::string> m_hash;
    NS::OperationQueue m_hashingQueue;
};

}  // namespace velkor
