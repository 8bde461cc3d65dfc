#include "service/ChangesRequest.h"

#include <algorithm>
#include <future>
#include <numeric>
#include <thread>

#include "PelmoLib/encodings/VLKLog.h"

namespace velkor::service {
namespace {

constexpr std::size_t transactionsPerThread = 1000;  // fewer are not worth starting a thread
constexpr std::size_t mostThreads = 4;
constexpr std::size_t smallPayloads = 64 << 20, mostInflation = 16;

bool isIdentifier(std::string_view text) { return text.size() <= longestName && text.find('\0') == text.npos; }

}  // namespace

std::optional<ChangesRequest> ChangesRequest::read(std::string_view json) {
    ChangesRequest request(json);
    if (!request.readMembers() || !request.takeEnvelope()) return std::nullopt;
    return request;
}

bool ChangesRequest::readMembers() {
    std::string_view key;
    for (m_cursor->enterObject(); m_cursor->nextMember(key);) {
        if (key == "xactions") {
            if (!readTransactions()) return false;
            continue;
        }
        NS::Value value;
        if (!m_cursor->value(value)) return false;
        m_envelope.set(key, std::move(value));
    }
    return m_cursor->end();
}

bool ChangesRequest::readTransactions() {
    m_transactions.clear();
    std::string_view key;
    if (!m_cursor->enterObject()) return false;
    while (m_cursor->nextMember(key)) {
        IncomingTransaction& transaction = m_transactions.emplace_back();
        if (!transaction.read(*m_cursor)) return false;
        if (transaction.isUsable()) continue;
        m_transactions.pop_back();
        VLKLog::sharedInstance().logMessageAtLevel(100, "Skipped a transaction without a usable guid, class or type.");
    }
    return m_cursor->ok();
}

bool ChangesRequest::takeEnvelope() {
    const auto app = m_envelope["app_id"].asString(), instance = m_envelope["instance_id"].asString();
    if (!instance || instance->empty() || !isIdentifier(*instance) || (app && !isIdentifier(*app))) return false;
    const NS::Value* highest = m_envelope.find("HIGHEST_XACTION");
    if (highest && !highest->asInteger()) return false;
    m_app = app.value_or(missingAppId);
    m_instance = *instance;
    m_highest = highest ? *highest->asInteger() : -1;
    m_multiPart = m_envelope["multi_part"].asBoolean().value_or(false);
    return true;
}

std::size_t ChangesRequest::mostPayloadBytes(std::size_t length) { return length * mostInflation + smallPayloads; }

void ChangesRequest::readRelationships() {
    std::size_t bytesLeft = mostPayloadBytes(m_length);
    readRelationships(bytesLeft);
}

void ChangesRequest::readRelationships(std::size_t& bytesLeft) {
    if (!m_arenas.empty()) return;
    const std::size_t count = m_transactions.size();
    const std::size_t wanted =
        std::min<std::size_t>({count / transactionsPerThread, std::thread::hardware_concurrency(), mostThreads});
    const std::size_t threads = std::max<std::size_t>(wanted, 1);
    for (std::size_t i = 0; i < threads; ++i) m_arenas.push_back(std::make_unique<std::pmr::monotonic_buffer_resource>());
    std::vector<std::size_t> left(threads, bytesLeft / threads);
    auto readShare = [&](std::size_t share) {
        for (std::size_t i = count * share / threads; i < count * (share + 1) / threads; ++i) {
            m_transactions[i].readRelationships(*m_arenas[share], left[share]);
        }
    };
    // What a share raises is raised here; where there are no more threads, its work is done here as well.
    std::vector<std::future<void>> helpers;
    for (std::size_t share = 1; share < threads; ++share) helpers.push_back(std::async(readShare, share));
    readShare(0);
    for (auto& helper : helpers) helper.get();
    bytesLeft = std::accumulate(left.begin(), left.end(), std::size_t(0));
}

}  // namespace velkor::service
