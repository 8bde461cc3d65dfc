#pragma once

#include <cstdint>
#include <vector>

#include "platform/base/Date.h"
#include "platform/base/Export.h"
#include "platform/base/Object.h"

namespace velkor::NS {

class EntityDescription;

enum class ChangeKind : std::uint8_t { inserted, updated, deleted };

/// What one save wrote, as plain values: safe to hand to other threads and to merge into their contexts, as long as the model
/// of its entities lives.
class VELKOR_EXPORT ChangeRecord : public Object {
public:
    struct Change {
        const EntityDescription* entity;
        std::int64_t key;
        ChangeKind kind;
        /// The history row of this change; 0 when the store keeps no history.
        std::int64_t historySequence = 0;
    };
    /// Inserted, updated and deleted objects, then (as updated, without history) rows that a delete rule rewrote.
    std::vector<Change> changes;
    /// When the save was made, as its history rows say.
    Date time;
};

}  // namespace velkor::NS
