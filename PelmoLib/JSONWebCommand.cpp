#include "PelmoLib/JSONWebCommand.h"

#include <algorithm>
#include <type_traits>

#include "PelmoLib/NSMutableURLRequest+Posts.h"
#include "json/CJSONDeserializer.h"
#include "json/CJSONSerializer.h"
#include "platform/base/Exception.h"
#include "platform/base/Value.h"
#include "platform/concurrency/RunLoop.h"

namespace velkor {

namespace {

constexpr std::int64_t successStatus = 200;

/// Room that is set aside at once for an answer of announced length; a longer one grows.
constexpr std::int64_t largestReservation = 64 << 20;

/// Calls the block if there is one; it may set the command's blocks anew.
template <class... Args>
void callBlock(const std::function<void(Args...)>& block, std::type_identity_t<Args>... args) {
    if (!block) return;
    const auto copy = block;
    copy(args...);
}

}  // namespace

JSONWebCommand::JSONWebCommand(NS::URLRequest request) : m_request(std::move(request)) {
    m_parseOpQueue.setMaxConcurrentOperationCount(1);
}

JSONWebCommand::JSONWebCommand(std::string_view url, const NS::Dictionary& params)
    : JSONWebCommand(
          postRequestForURLWithJSON(url, CJSONSerializer::serializer().serializeDictionary(params, nullptr).value_or(""))) {}

JSONWebCommand::~JSONWebCommand() = default;

void JSONWebCommand::start() {
    NS::assertThat(!(m_completionBlock && m_threadedCompletionBlock), "!(completionBlock && threadedCompletionBlock)");
    const auto round = ++m_round;
    setStatus(CommandStatus::running);
    if (NS::RunLoop::main().isCurrentThread()) {
        open(round);
    } else {
        NS::RunLoop::main().post([command = self(), round] {
            if (command->isCurrent(round)) command->open(round);
        });
    }
}

void JSONWebCommand::open(std::uint64_t round) {
    if (m_connection) m_connection->cancel();
    m_openRound = round;
    m_data = NS::Data();
    m_statusCode = 0;
    m_resultDict.reset();
    m_connection = std::make_shared<NS::URLConnection>(m_request, this);
    m_connection->scheduleInRunLoop(NS::RunLoop::main());
    m_keepAlive = self();
    m_connection->start();
}

void JSONWebCommand::cancel() {
    const auto round = ++m_round;
    if (NS::RunLoop::main().isCurrentThread()) {
        close();
    } else {
        NS::RunLoop::main().post([command = self(), round] {
            // Started again since, it is the new start's connection that is open.
            if (command->isCurrent(round)) return command->close();
            callBlock(command->m_finallyBlock);
        });
    }
}

void JSONWebCommand::close() {
    if (m_connection) m_connection->cancel();
    m_connection.reset();
    setStatus(CommandStatus::failed);
    const auto kept = std::move(m_keepAlive);
    callBlock(m_finallyBlock);
}

void JSONWebCommand::connectionDidReceiveResponse(NS::URLConnection&, const NS::URLResponse& response) {
    m_statusCode = response.statusCode;
    const std::int64_t length = std::min(response.expectedContentLength, largestReservation);
    if (length > 0) m_data.reserve(static_cast<std::size_t>(length));
}

void JSONWebCommand::connectionDidReceiveData(NS::URLConnection&, std::string_view bytes) { m_data.append(bytes); }

void JSONWebCommand::connectionDidFinishLoading(NS::URLConnection&) {
    const auto kept = std::move(m_keepAlive);
    if (!isCurrent(m_openRound)) return;
    setStatus(CommandStatus::failed);  // until the outcome is known
    if (m_statusCode == successStatus) {
        parse();
    } else {
        failWithStatus();
    }
}

void JSONWebCommand::connectionDidFailWithError(NS::URLConnection&, const NS::Error& error) {
    const auto kept = std::move(m_keepAlive);
    if (isCurrent(m_openRound)) deliverError(error);
}

void JSONWebCommand::failWithStatus() {
    m_resultDict = dictionaryWithJSONData(m_data, nullptr);
    deliverError({NS::NetworkErrorDomain, m_statusCode,
                  m_resultDict ? *m_resultDict
                               : NS::Dictionary{{NS::LocalizedDescriptionKey, NS::localizedStringForStatusCode(m_statusCode)}}});
}

// The command moves from the parse queue to the main queue, so that its last owner lets go of it there.
void JSONWebCommand::parse() {
    m_parseOpQueue.addOperation([command = self(), data = m_data, round = m_openRound]() mutable {
        std::optional<NS::Error> error;
        auto result = dictionaryWithJSONData(data, &error);
        NS::OperationQueue::mainQueue().addOperation(
            [command = std::move(command), result = std::move(result), error = std::move(error), round] {
                if (!command->isCurrent(round)) return;
                command->m_resultDict = result;
                if (result) {
                    command->handleSuccessfulResult(*result);
                } else {
                    command->deliverError(*error);
                }
            });
    });
}

void JSONWebCommand::handleSuccessfulResult(const NS::Dictionary& result) {
    if (m_threadedCompletionBlock) return completeOnParseQueue(result);
    const auto round = m_openRound;
    callBlock(m_completionBlock, result);
    if (isCurrent(round) && m_delegate) m_delegate->webCommandCompletedWithResult(*this, result);
    if (isCurrent(round)) finishLoadingResult();
}

// The final block runs before the delegate hears of the success, and what that block adds to the main queue comes between them.
void JSONWebCommand::completeOnParseQueue(const NS::Dictionary& result) {
    m_parseOpQueue.addOperation([command = self(), block = m_threadedCompletionBlock, result, round = m_openRound]() mutable {
        if (command->isCurrent(round)) block(result);
        NS::OperationQueue::mainQueue().addOperation([command = std::move(command), result = std::move(result), round] {
            if (!command->isCurrent(round)) return;
            command->finishLoadingResult();
            NS::OperationQueue::mainQueue().addOperation([command, result, round] {
                if (command->isCurrent(round) && command->m_delegate)
                    command->m_delegate->webCommandCompletedWithResult(*command, result);
            });
        });
    });
}

void JSONWebCommand::deliverError(const NS::Error& error) {
    const auto round = m_openRound;
    callBlock(m_failureBlock, error);
    if (isCurrent(round) && m_delegate) m_delegate->webCommandFailedWithError(*this, error);
    if (isCurrent(round)) finishLoadingResult();
}

void JSONWebCommand::finishLoadingResult() {
    setStatus(CommandStatus::finished);
    m_connection.reset();
    callBlock(m_finallyBlock);
}

}  // namespace velkor
