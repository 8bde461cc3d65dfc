#pragma once

#include <cstdint>
#include <memory>
#include <memory_resource>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/Dictionary.h"
#include "service/IncomingTransaction.h"

namespace velkor::service {

/// A changes request, read without the database: large ones by several threads. It refers to the request's text, which lives as
/// long.
class ChangesRequest {
public:
    /// None for a text that is no changes request.
    static std::optional<ChangesRequest> read(std::string_view json);
    /// Reads the relationships out of the payloads, if that was not done; they are taken in with them. The payloads may inflate
    /// to so many bytes, which are taken off; what is beyond has no links.
    void readRelationships(std::size_t& bytesLeft);
    /// The same for a request by itself.
    void readRelationships();
    /// To how many bytes the payloads of requests of that length may inflate: a few bytes that inflate to thousands of times as
    /// many shall not take the service's memory.
    static std::size_t mostPayloadBytes(std::size_t length);

    const std::string& app() const { return m_app; }
    const std::string& instance() const { return m_instance; }
    /// HIGHEST_XACTION as the client sent it.
    std::int64_t highest() const { return m_highest; }
    bool isMultiPart() const { return m_multiPart; }
    std::string_view modelVersion() const { return m_envelope["model_version"].asString().value_or(std::string_view()); }
    /// The schema's JSON text, when the request carries it.
    std::optional<std::string_view> schema() const { return m_envelope["schema"].asString(); }

    std::vector<IncomingTransaction>& transactions() { return m_transactions; }
    const std::vector<IncomingTransaction>& transactions() const { return m_transactions; }

private:
    explicit ChangesRequest(std::string_view json) : m_cursor(std::make_unique<JSONCursor>(json)), m_length(json.size()) {}
    bool readMembers();
    bool readTransactions();
    bool takeEnvelope();

    std::unique_ptr<JSONCursor> m_cursor;  // keeps texts that had escapes
    std::size_t m_length;
    NS::Dictionary m_envelope;  // all but the transactions
    std::string m_app, m_instance;
    std::int64_t m_highest = -1;
    bool m_multiPart = false;
    std::vector<std::unique_ptr<std::pmr::monotonic_buffer_resource>> m_arenas;  // one a thread
    std::vector<IncomingTransaction> m_transactions;
};

/// The app id that URLs and requests of a client without one name.
inline constexpr std::string_view missingAppId = "(null)";

}  // namespace velkor::service
