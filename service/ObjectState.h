#pragma once

#include <cstdint>

namespace velkor::service {

/// What the latest transaction of an object says of it.
enum class ObjectKind : std::uint8_t { unknown = 0, inserted = 1, updated = 2, deleted = 3, expired = 4 };

/// Whether the object counts for the SYNC_HASH.
inline bool isLive(ObjectKind kind) { return kind == ObjectKind::inserted || kind == ObjectKind::updated; }

/// The column "state" of an object's row.
struct ObjectState {
    ObjectKind kind = ObjectKind::unknown;
    bool computed = false;   // the links may differ from the payload's lists
    bool overruled = false;  // the latest transaction's lists were overruled; such states are 32 and more

    std::int64_t code() const { return static_cast<std::int64_t>(kind) | (computed ? 16 : 0) | (overruled ? 32 : 0); }
    static ObjectState of(std::int64_t code) { return {static_cast<ObjectKind>(code & 15), (code & 16) != 0, (code & 32) != 0}; }
};

}  // namespace velkor::service
