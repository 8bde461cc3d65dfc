#pragma once

namespace velkor::NS {

/// The JSON null: a value of its own, not an absent one.
struct Null {
    bool operator==(const Null&) const noexcept = default;
};

}  // namespace velkor::NS
