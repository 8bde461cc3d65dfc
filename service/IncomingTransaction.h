#pragma once

#include <cstdint>
#include <memory_resource>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "json/JSONCursor.h"
#include "platform/base/Dictionary.h"
#include "service/ObjectState.h"
#include "service/Relations.h"

namespace velkor::service {

/// One relationship as a payload describes it. The texts belong to the arena that the payload was read into.
struct RelationshipText {
    std::string_view name, destination;
    bool toMany = false;
    std::pmr::vector<std::string_view> guids;      // one at most for a to-one
    RelationEnd end;                               // once it is looked up
    std::pmr::vector<std::uint32_t> destinations;  // the objects, once they are looked up
};

/// A transaction as it came. Its texts are the request's, which lives as long.
class IncomingTransaction {
public:
    /// Reads one member of "xactions"; false for what is no JSON. Members that are no strings count as absent.
    bool read(JSONCursor& cursor);
    /// A stored transaction as if it had come now; none for a text that is none. `body` lives as long.
    static std::optional<IncomingTransaction> fromStored(std::string_view body, JSONCursor& cursor);

    /// Whether it has a guid, a class and a type that a client may send.
    bool isUsable() const;
    /// Reads the payload's relationships; without any when it does not decode, or has more bytes than are left. Takes its bytes
    /// off those, and keeps the relationships in the arena.
    void readRelationships(std::pmr::memory_resource& arena, std::size_t& bytesLeft);

    ObjectKind kind() const;
    std::string_view guid() const { return m_guid; }
    std::string_view className() const { return m_className; }
    std::span<RelationshipText> relationships() const { return m_relationships; }

    /// Appends the wire form for other clients: the payload gets one wrapping character at each end.
    void appendWireForm(std::string& out) const;

private:
    std::optional<std::string_view> m_time;
    std::string_view m_type, m_className, m_guid, m_payload;
    std::string_view m_wireForm;                  // if it is known already
    std::span<RelationshipText> m_relationships;  // the arena's
};

/// Most bytes of a guid or a class name.
inline constexpr std::size_t longestName = 1024;

/// What a stored transaction says of its object's relationships.
struct StoredRelationships {
    std::string className;
    NS::Dictionary relationships;  // as the payload describes them
};
/// None when the payload has none or does not decode.
std::optional<StoredRelationships> relationshipsOfStoredTransaction(std::string_view body);

}  // namespace velkor::service
