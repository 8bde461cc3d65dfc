#pragma once

#include <cstdint>
#include <deque>
#include <memory_resource>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/Dictionary.h"
#include "service/GuidDirectory.h"
#include "service/Relations.h"

namespace velkor::service {

/// One relationship as a payload describes it. The texts belong to the arena that `readTransaction` was given.
struct RelationshipText {
    std::string_view name, destination;
    bool toMany = false;
    std::pmr::vector<std::string_view> guids;      // one at most for a to-one
    RelationEnd end;                               // once it is looked up
    std::pmr::vector<std::uint32_t> destinations;  // the objects, once they are looked up
};

/// A transaction as it came, made ready for the store.
struct IncomingTransaction {
    ObjectKind kind = ObjectKind::unknown;  // never `unknown` once read
    std::string_view guid, className;       // as the request's
    std::string body;                       // wire form, as it goes out to other clients
    std::pmr::vector<RelationshipText> relationships;
};

/// Most bytes of a guid or a class name.
inline constexpr std::size_t longestName = 1024;

/// Reads one member of "xactions". None, with the reason in the log, when it has no guid, no class or no type that a client may
/// send. The result refers to the member's texts, which must live as long.
std::optional<IncomingTransaction> readTransaction(const NS::Dictionary& member, std::pmr::memory_resource& arena);

/// A stored transaction as if it had come now.
std::optional<IncomingTransaction> readStoredTransaction(std::string_view body, std::pmr::memory_resource& arena);

/// What a stored transaction says of its object's relationships.
struct StoredRelationships {
    std::string className;
    NS::Dictionary relationships;  // as the payload describes them
};
/// None when the payload has none or does not decode.
std::optional<StoredRelationships> relationshipsOfStoredTransaction(std::string_view body);

}  // namespace velkor::service
