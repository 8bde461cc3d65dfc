#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "platform/base/Data.h"
#include "platform/base/Dictionary.h"
#include "platform/base/Error.h"
#include "platform/base/Export.h"
#include "platform/base/Object.h"
#include "platform/concurrency/OperationQueue.h"
#include "platform/url/URLConnection.h"
#include "platform/url/URLRequest.h"

namespace velkor {

class JSONWebCommand;

/// The words of `JSONWebCommand::commandStatus()`.
namespace CommandStatus {
inline constexpr std::string_view pending = "COMMAND_PENDING";
inline constexpr std::string_view running = "COMMAND_RUNNING";
inline constexpr std::string_view failed = "FAILED_COMMAND";
inline constexpr std::string_view finished = "COMMAND_FINISHED";
}  // namespace CommandStatus

/// Observes a command's outcome, on the main thread.
class VELKOR_EXPORT JSONWebCommandDelegate {
public:
    virtual ~JSONWebCommandDelegate() = default;
    virtual void webCommandCompletedWithResult(JSONWebCommand& command, const NS::Dictionary& result) = 0;
    virtual void webCommandFailedWithError(JSONWebCommand& command, const NS::Error& error) = 0;
};

/// One request to the service whose answer is read as a JSON object. Owned by shared pointers (`std::make_shared`); it keeps
/// itself alive from `start()` until its outcome has been delivered. An answer other than 200 is a failure, whose error has the
/// network domain, the status as code, and the answer's JSON object (else the status's text) as user info. All blocks and the
/// delegate run on the main thread, except a threaded completion block, which runs on the command's own serial parse queue; the
/// final block runs last, once a start, and at `cancel()`. Properties are set before `start()` and read on the main thread. A
/// command may be started again: what belonged to the earlier start is dropped.
class VELKOR_EXPORT JSONWebCommand : public NS::Object, public NS::URLConnectionDelegate {
public:
    using CompletionBlock = std::function<void(const NS::Dictionary& result)>;
    using FailureBlock = std::function<void(const NS::Error& error)>;
    using FinallyBlock = std::function<void()>;

    explicit JSONWebCommand(NS::URLRequest request);
    /// POSTs the parameters as JSON text.
    JSONWebCommand(std::string_view url, const NS::Dictionary& params);
    ~JSONWebCommand() override;

    /// Sends the request; any thread. Asserts that not both completion blocks are set.
    void start();
    /// Stops the command: only the final block is called, once more even if the command has finished. On the main thread at once,
    /// from another one in its next turn.
    void cancel();

    const NS::URLRequest& request() const noexcept { return m_request; }
    /// Not owned; must live until the outcome or be cleared.
    JSONWebCommandDelegate* delegate() const noexcept { return m_delegate; }
    void setDelegate(JSONWebCommandDelegate* delegate) noexcept { m_delegate = delegate; }
    void setCompletionBlock(CompletionBlock block) { m_completionBlock = std::move(block); }
    void setThreadedCompletionBlock(CompletionBlock block) { m_threadedCompletionBlock = std::move(block); }
    void setFailureBlock(FailureBlock block) { m_failureBlock = std::move(block); }
    void setFinallyBlock(FinallyBlock block) { m_finallyBlock = std::move(block); }
    const CompletionBlock& completionBlock() const noexcept { return m_completionBlock; }
    const CompletionBlock& threadedCompletionBlock() const noexcept { return m_threadedCompletionBlock; }
    const FailureBlock& failureBlock() const noexcept { return m_failureBlock; }
    const FinallyBlock& finallyBlock() const noexcept { return m_finallyBlock; }

    /// The running connection; null when idle or finished.
    const std::shared_ptr<NS::URLConnection>& connection() const noexcept { return m_connection; }
    /// The answer's body as received so far.
    const NS::Data& data() const noexcept { return m_data; }
    /// HTTP status of the last answer; 0 before there is one.
    std::int64_t statusCode() const noexcept { return m_statusCode; }
    /// The answer's JSON object, or none.
    const std::optional<NS::Dictionary>& resultDict() const noexcept { return m_resultDict; }
    /// One of the words of CommandStatus. Any thread.
    std::string_view commandStatus() const noexcept { return *m_commandStatus.load(); }
    /// For hosts that show activity; true unless set.
    bool showsNetworkActivity() const noexcept { return m_showsNetworkActivity; }
    void setShowsNetworkActivity(bool shows) noexcept { m_showsNetworkActivity = shows; }
    NS::OperationQueue& parseOpQueue() noexcept { return m_parseOpQueue; }

    void connectionDidReceiveResponse(NS::URLConnection& connection, const NS::URLResponse& response) override;
    void connectionDidReceiveData(NS::URLConnection& connection, std::string_view bytes) override;
    void connectionDidFinishLoading(NS::URLConnection& connection) override;
    void connectionDidFailWithError(NS::URLConnection& connection, const NS::Error& error) override;
    std::string_view className() const noexcept override { return "JSONWebCommand"; }

private:
    std::shared_ptr<JSONWebCommand> self() { return std::static_pointer_cast<JSONWebCommand>(shared_from_this()); }
    bool isCurrent(std::uint64_t round) const noexcept { return m_round == round; }
    void setStatus(const std::string_view& word) noexcept { m_commandStatus = &word; }
    void open(std::uint64_t round);
    void close();
    void parse();
    void failWithStatus();
    void deliverError(const NS::Error& error);
    void handleSuccessfulResult(const NS::Dictionary& result);
    void completeOnParseQueue(const NS::Dictionary& result);
    void finishLoadingResult();

    NS::URLRequest m_request;
    JSONWebCommandDelegate* m_delegate = nullptr;
    CompletionBlock m_completionBlock;
    CompletionBlock m_threadedCompletionBlock;
    FailureBlock m_failureBlock;
    FinallyBlock m_finallyBlock;
    bool m_showsNetworkActivity = true;

    std::atomic<std::uint64_t> m_round = 0;  // counts starts and cancellations: what an earlier round brings is dropped
    std::atomic<const std::string_view*> m_commandStatus = &CommandStatus::pending;
    // Main thread only.
    std::uint64_t m_openRound = 0;  // the start that the connection belongs to
    std::shared_ptr<NS::URLConnection> m_connection;
    std::shared_ptr<JSONWebCommand> m_keepAlive;  // this command, while its connection runs
    NS::Data m_data;
    std::int64_t m_statusCode = 0;
    std::optional<NS::Dictionary> m_resultDict;
    NS::OperationQueue m_parseOpQueue;
};

}  // namespace velkor
