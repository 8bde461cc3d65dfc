#include "Sync/VLKS3Transfer.h"

#include "PelmoLib/JSONWebCommand.h"
#include "PelmoLib/NSMutableURLRequest+Posts.h"
#include "PelmoLib/encodings/VLKLog.h"
#include "Sync/VLKAnswer.h"
#include "Sync/VLKDataDownloader.h"
#include "platform/base/Format.h"
#include "platform/concurrency/RunLoop.h"

namespace velkor {

VLKS3Transfer::VLKS3Transfer(std::string wsServerURL, std::string amazonURL, std::string appId, std::string guid,
                             std::string colname)
    : m_wsServerURL(std::move(wsServerURL)),
      m_amazonURL(std::move(amazonURL)),
      m_appId(std::move(appId)),
      m_guid(std::move(guid)),
      m_colname(std::move(colname)) {}

VLKS3Transfer::~VLKS3Transfer() = default;

void VLKS3Transfer::start() { beginRound(true); }

void VLKS3Transfer::cancel() { beginRound(false); }

void VLKS3Transfer::beginRound(bool runs) {
    const auto round = ++m_round;
    const auto change = [this, round, runs] {
        if (m_round != round) return;
        close();
        m_running = round;
        if (runs) begin();
    };
    if (NS::RunLoop::main().isCurrentThread()) {
        change();
    } else {
        NS::RunLoop::main().post([kept = shared_from_this(), change] { change(); });
    }
}

void VLKS3Transfer::close() {
    if (const auto command = m_command.lock()) command->cancel();
    m_command.reset();
    end();
}

std::string VLKS3Transfer::endpointURL(std::string_view name) const {
    return NS::format("%@/client_apps/%@/blobs/%@/%@/%@", m_wsServerURL, m_appId, m_guid, m_colname, name);
}

NS::MutableURLRequest VLKS3Transfer::presigningRequest(std::string_view endpointURL) const {
    auto request = requestWithURL(endpointURL, {});
    addAuthenticationForUsername(request, NS::describe(m_email), NS::describe(m_password));
    return request;
}

void VLKS3Transfer::send(NS::URLRequest request, AnswerBlock completed, FailureBlock failed) {
    const auto command = std::make_shared<JSONWebCommand>(std::move(request));
    command->setCompletionBlock(whileCurrent(std::move(completed)));
    command->setFailureBlock(whileCurrent(std::move(failed)));
    m_command = command;
    command->start();
}

void VLKS3Transfer::fetch(std::string_view endpoint, const Fetching& make, std::string_view failureFormat, BytesBlock completed) {
    const auto url = endpointURL(endpoint);
    VLKLog::sharedInstance().logMessageAtLevel(300, "Attempting to get presigned url from: %@", url);
    send(
        presigningRequest(url),
        [this, make, completed = std::move(completed)](const NS::Dictionary& answer) {
            const auto presigned = VLKAnswer::text(answer, "url");
            VLKLog::sharedInstance().logMessageAtLevel(300, "Got presigned url... %@", presigned);
            const auto exchange = make(presigned.value_or(""));
            exchange->setCompletionBlock(whileCurrent(BytesBlock([this, completed](const NS::Data& bytes) {
                end();
                completed(bytes);
            })));
            exchange->setFailureBlock(whileCurrent(FailureBlock([this](const NS::Error& error) { fail(error); })));
            keep(exchange);
            exchange->start();
        },
        [this, failureFormat](const NS::Error& error) {
            VLKLog::sharedInstance().logMessageAtLevel(100, failureFormat, error.localizedDescription());
            fail(error);
        });
}

void VLKS3Transfer::fail(const NS::Error& error) {
    end();
    if (const auto block = m_failureBlock) block(error);
}

}  // namespace velkor
