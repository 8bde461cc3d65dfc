#include "PelmoLib/JSONWebCommand.h"

#include "PelmoLib/NSMutableURLRequest+Posts.h"
#include "json/CJSONDeserializer.h"
#include "json/CJSONSerializer.h"
#include "platform/base/Exception.h"
#include "platform/base/Value.h"
#include "platform/concurrency/RunLoop.h"

namespace velkor {

namespace {

constexpr std::int64_t successStatus = 200;

/// The error that a reader gives for an answer that is no JSON object; one of ours when it gives none.
NS::Error parseError(std::optional<NS::Error> error) {
    if (error) return *error;
    return NS::Error::withDescription(CJSONDeserializerErrorDomain, -1, "the answer is no JSON object");
}

}  // namespace

JSONWebCommand::JSONWebCommand(NS::URLRequest request) : m_request(std::move(request)) {
    m_parseOpQueue.setMaxConcurrentOperationCount(1);
}

JSONWebCommand::JSONWebCommand(std::string_view url, const NS::Dictionary& params)
    : JSONWebCommand(postRequestForURLWithJSON(url, CJSONSerializer::serializer().serializeDictionary(params, nullptr).value_or(""))) {}

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

void JSONWebCommand::open(std::uint64_t) {
    if (m_connection) m_connection->cancel();
    m_data = NS::Data();
    m_connection = std::make_shared<NS::URLConnection>(m_request, this);
    m_connection->scheduleInRunLoop(NS::RunLoop::main());
    m_keepAlive = self();
    m_connection->start();
}

void JSONWebCommand::cancel() {
    if (!NS::RunLoop::main().isCurrentThread()) {
        ++m_round;
        NS::RunLoop::main().post([command = self()] { command->cancel(); });
        return;
    }
    ++m_round;
    if (m_connection) m_connection->cancel();
    m_connection.reset();
    setStatus(CommandStatus::failed);
    auto kept = std::move(m_keepAlive);
    if (m_finallyBlock) m_finallyBlock();
}

void JSONWebCommand::connectionDidReceiveResponse(NS::URLConnection&, const NS::URLResponse& response) {
    m_statusCode = response.statusCode;
    if (response.expectedContentLength > 0 && response.expectedContentLength < (64 << 20)) {
        m_data.reserve(static_cast<std::size_t>(response.expectedContentLength));
    }
}

void JSONWebCommand::connectionDidReceiveData(NS::URLConnection&, std::string_view bytes) { m_data.append(bytes); }

void JSONWebCommand::connectionDidFinishLoading(NS::URLConnection&) {
    const auto round = m_round.load();
    auto kept = std::move(m_keepAlive);
    setStatus(CommandStatus::failed);  // until the outcome is known
    if (m_statusCode != successStatus) {
        failWithStatus(round);
    } else {
        parse(round);
    }
}

void JSONWebCommand::connectionDidFailWithError(NS::URLConnection&, const NS::Error& error) {
    auto kept = std::move(m_keepAlive);
    deliverError(error, m_round);
}

void JSONWebCommand::failWithStatus(std::uint64_t round) {
    m_resultDict = dictionaryWithJSONData(m_data, nullptr);
    NS::Dictionary userInfo{{NS::LocalizedDescriptionKey, NS::localizedStringForStatusCode(m_statusCode)}};
    if (m_resultDict) userInfo = *m_resultDict;
    deliverError(NS::Error(NS::NetworkErrorDomain, m_statusCode, userInfo), round);
}

void JSONWebCommand::parse(std::uint64_t round) {
    m_parseOpQueue.addOperation([command = self(), data = m_data, round] {
        std::optional<NS::Error> error;
        auto result = dictionaryWithJSONData(data, &error);
        NS::OperationQueue::mainQueue().addOperation([command, result = std::move(result), error, round] {
            if (!command->isCurrent(round)) return;
            command->m_resultDict = result;
            if (result) {
                command->handleSuccessfulResult(*result, round);
            } else {
                command->deliverError(parseError(error), round);
            }
        });
    });
}

void JSONWebCommand::handleSuccessfulResult(const NS::Dictionary& result, std::uint64_t round) {
    if (m_threadedCompletionBlock) return completeOnParseQueue(result, round);
    auto kept = self();
    if (m_completionBlock) m_completionBlock(result);
    if (isCurrent(round) && m_delegate) m_delegate->webCommandCompletedWithResult(*this, result);
    if (isCurrent(round)) finishLoadingResult();
}

void JSONWebCommand::completeOnParseQueue(const NS::Dictionary& result, std::uint64_t round) {
    m_parseOpQueue.addOperation([command = self(), result, round] {
        if (!command->isCurrent(round)) return;
        command->m_threadedCompletionBlock(result);
        // The final block runs before the delegate hears of the success; the main queue keeps that order.
        auto& mainQueue = NS::OperationQueue::mainQueue();
        mainQueue.addOperation([command, round] {
            if (command->isCurrent(round)) command->finishLoadingResult();
        });
        mainQueue.addOperation([command, result, round] {
            if (command->isCurrent(round) && command->m_delegate) command->m_delegate->webCommandCompletedWithResult(*command, result);
        });
    });
}

void JSONWebCommand::deliverError(const NS::Error& error, std::uint64_t round) {
    if (!isCurrent(round)) return;
    auto kept = self();
    if (m_failureBlock) m_failureBlock(error);
    if (isCurrent(round) && m_delegate) m_delegate->webCommandFailedWithError(*this, error);
    if (isCurrent(round)) finishLoadingResult();
}

void JSONWebCommand::finishLoadingResult() {
    setStatus(CommandStatus::finished);
    m_connection.reset();
    if (m_finallyBlock) m_finallyBlock();
}

}  // namespace velkor
