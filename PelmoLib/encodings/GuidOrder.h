// The order of guids that all clients and the service share, and the sync hash over a list in that order: folded to lower case
// (Unicode simple folding), then by the bytes of the folded text; equal ones by the bytes of the texts themselves.
#pragma once

#include <compare>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/Export.h"

namespace velkor {

VELKOR_EXPORT std::strong_ordering compareGuids(std::string_view a, std::string_view b);
/// The order as a function object, for sorted containers.
struct GuidLess {
    using is_transparent = void;
    bool operator()(std::string_view a, std::string_view b) const { return compareGuids(a, b) < 0; }
};

/// Sorts ascending. Fast for large lists; the texts themselves are not copied.
VELKOR_EXPORT void sortGuids(std::vector<std::string_view>& guids);
VELKOR_EXPORT void sortGuids(std::vector<std::string>& guids);
/// Sorts and removes the duplicates (exact ones).
VELKOR_EXPORT void sortUniqueGuids(std::vector<std::string_view>& guids);
VELKOR_EXPORT void sortUniqueGuids(std::vector<std::string>& guids);

/// Base64 of the SHA-256 digest of the guids' bytes, one after the other; the list is sorted and without duplicates.
VELKOR_EXPORT std::string syncHashOfSortedGuids(std::span<const std::string_view> guids);
VELKOR_EXPORT std::string syncHashOfSortedGuids(std::span<const std::string> guids);

}  // namespace velkor
