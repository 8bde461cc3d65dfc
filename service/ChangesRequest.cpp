#include "service/ChangesRequest.h"

#include <algorithm>
#include <thread>

#include "PelmoLib/encodings/VLKLog.h"
#include "json/CJSONDeserializer.h"

namespace velkor::service {
namespace {

constexpr std::size_t transactionsPerThread = 1000;  // fewer are not worth starting a thread
constexpr std::size_t mostThreads = 4;

bool isIdentifier(std::string_view text) { return text.size() <= longestName && text.find('\0') == text.npos; }

}  // namespace

std::optional<ChangesRequest> ChangesRequest::read(std::string_view json) {
    auto envelope = CJSONDeserializer::deserializer().deserializeAsDictionary(json, nullptr);
    if (!envelope) return std::nullopt;
    ChangesRequest request;
    request.m_envelope = *std::move(envelope);
    if (!request.readEnvelope()) return std::nullopt;
    request.readTransactions();
    return request;
}

bool ChangesRequest::readEnvelope() {
    const auto app = m_envelope["app_id"].asString(), instance = m_envelope["instance_id"].asString();
    if (!instance || instance->empty() || !isIdentifier(*instance) || (app && !isIdentifier(*app))) return false;
    const NS::Value* highest = m_envelope.find("HIGHEST_XACTION");
    if (highest && !highest->asInteger()) return false;
    if (m_envelope.contains("xactions") && !m_envelope["xactions"].asDictionary()) return false;
    m_app = app.value_or(missingAppId);
    m_instance = *instance;
    m_highest = highest ? *highest->asInteger() : -1;
    m_multiPart = m_envelope["multi_part"].asBoolean().value_or(false);
    return true;
}

void ChangesRequest::readTransactions() {
    const NS::Dictionary* members = m_envelope["xactions"].asDictionary();
    if (!members || members->empty()) return;
    const std::size_t count = members->size();
    const std::size_t threads = std::clamp<std::size_t>(
        std::min<std::size_t>(count / transactionsPerThread, std::thread::hardware_concurrency()), 1, mostThreads);
    std::vector<std::optional<IncomingTransaction>> read(count);
    for (std::size_t i = 0; i < threads; ++i) m_arenas.push_back(std::make_unique<std::pmr::monotonic_buffer_resource>());
    auto readShare = [&](std::size_t share) {
        for (std::size_t i = count * share / threads; i < count * (share + 1) / threads; ++i) {
            if (const NS::Dictionary* member = members->begin()[i].value().asDictionary()) {
                read[i] = readTransaction(*member, *m_arenas[share]);
            } else {
                VLKLog::sharedInstance().logMessageAtLevel(100, "Skipped a transaction that is no object.");
            }
        }
    };
    {
        std::vector<std::jthread> helpers;
        for (std::size_t share = 1; share < threads; ++share) helpers.emplace_back(readShare, share);
        readShare(0);
    }
    m_transactions.reserve(count);
    for (auto& transaction : read) {
        if (transaction) m_transactions.push_back(*std::move(transaction));
    }
}

std::string_view ChangesRequest::modelVersion() const {
    return m_envelope["model_version"].asString().value_or(std::string_view());
}

std::optional<std::string_view> ChangesRequest::schema() const { return m_envelope["schema"].asString(); }

}  // namespace velkor::service
