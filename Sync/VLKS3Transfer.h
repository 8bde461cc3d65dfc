#pragma once

#include <atomic>
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
#include "platform/url/URLRequest.h"

namespace velkor {

class JSONWebCommand;
class VLKDataDownloader;

/// What the transfers of one blob have in common: a blob attribute of an object, named by application, guid and attribute. Each
/// asks the sync service for a presigned request and then turns to the blob store itself; the library holds no keys of the store.
/// Owned by shared pointers (`std::make_shared`); a transfer keeps itself alive from `start()` until its end. Exactly one of
/// its completion and failure blocks is called then, on the main thread; nothing is tried again. Properties are set before
/// `start()` and read on the main thread.
class VELKOR_EXPORT VLKS3Transfer : public NS::Object {
public:
    using Text = std::optional<std::string>;
    using FailureBlock = std::function<void(const NS::Error& error)>;

    ~VLKS3Transfer() override;

    /// Any thread. Started again, also from its own blocks, a transfer drops what belonged to the earlier start.
    void start();
    /// Stops the transfer: no block is called any more. On the main thread at once, from another thread in its next turn.
    void cancel();

    /// The sync service's base URL.
    const std::string& wsServerURL() const noexcept { return m_wsServerURL; }
    void setWsServerURL(std::string url) { m_wsServerURL = std::move(url); }
    /// The client application's identifier at the service.
    const std::string& appId() const noexcept { return m_appId; }
    void setAppId(std::string appId) { m_appId = std::move(appId); }
    /// The object that owns the blob, and the name of the blob attribute.
    const std::string& guid() const noexcept { return m_guid; }
    void setGuid(std::string guid) { m_guid = std::move(guid); }
    const std::string& colname() const noexcept { return m_colname; }
    void setColname(std::string colname) { m_colname = std::move(colname); }
    /// The blob store's base URL; kept for the owner, plays no part in the transfer.
    const std::string& amazonURL() const noexcept { return m_amazonURL; }
    void setAmazonURL(std::string url) { m_amazonURL = std::move(url); }
    /// The blob to upload; without a value, one of no bytes. Kept for the owner by the other transfers.
    const NS::Data& data() const noexcept { return m_data; }
    void setData(NS::Data data) { m_data = std::move(data); }
    /// The user's credentials at the service; one that is none is sent as the text "(null)".
    const Text& email() const noexcept { return m_email; }
    void setEmail(Text email) { m_email = std::move(email); }
    const Text& password() const noexcept { return m_password; }
    void setPassword(Text password) { m_password = std::move(password); }
    const FailureBlock& failureBlock() const noexcept { return m_failureBlock; }
    void setFailureBlock(FailureBlock block) { m_failureBlock = std::move(block); }

protected:
    using AnswerBlock = std::function<void(const NS::Dictionary& answer)>;
    using BytesBlock = std::function<void(const NS::Data& bytes)>;
    /// Makes the exchange with the blob store for a presigned URL.
    using Fetching = std::function<std::shared_ptr<VLKDataDownloader>(std::string url)>;

    VLKS3Transfer(std::string wsServerURL, std::string amazonURL, std::string appId, std::string guid, std::string colname);

    /// The first step; on the main thread, as all steps.
    virtual void begin() = 0;
    /// URL of this blob's endpoint of the service, such as "read.json".
    std::string endpointURL(std::string_view name) const;
    /// The request for a presigned request.
    NS::MutableURLRequest presigningRequest(std::string_view endpointURL) const;
    /// Sends a request to the service.
    void send(NS::URLRequest request, AnswerBlock completed, FailureBlock failed);
    /// Asks an endpoint for a presigned URL and has the exchange with the store done; the service's failure is logged so.
    void fetch(std::string_view endpoint, const Fetching& make, std::string_view failureFormat, BytesBlock completed);
    /// Keeps the exchange with the blob store alive until the end of the transfer.
    void keep(std::shared_ptr<NS::Object> exchange) noexcept { m_exchange = std::move(exchange); }
    void end() noexcept { m_exchange.reset(); }
    /// Ends the transfer with its failure block.
    void fail(const NS::Error& error);
    /// A block that keeps the transfer alive and does nothing once the transfer was started anew or cancelled.
    template <class... Args>
    std::function<void(Args...)> whileCurrent(std::function<void(Args...)> block) {
        return [this, kept = shared_from_this(), round = m_running, block = std::move(block)](Args... args) {
            if (m_round == round) block(args...);
        };
    }

private:
    void beginRound(bool runs);
    void close();

    std::string m_wsServerURL;
    std::string m_amazonURL;
    std::string m_appId;
    std::string m_guid;
    std::string m_colname;
    NS::Data m_data;
    Text m_email;
    Text m_password;
    FailureBlock m_failureBlock;

    std::atomic<std::uint64_t> m_round = 0;  // counts starts and cancellations: what an earlier round brings is dropped
    // Main thread only.
    std::uint64_t m_running = 0;  // the round whose steps run
    std::weak_ptr<JSONWebCommand> m_command;
    std::shared_ptr<NS::Object> m_exchange;
};

}  // namespace velkor
