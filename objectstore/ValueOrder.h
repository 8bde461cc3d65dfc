#pragma once

#include <cstddef>
#include <vector>

#include "objectstore/FetchRequest.h"
#include "platform/base/Value.h"

namespace velkor::NS {

/// The order of values that the store's files have too: nil, numbers and dates, texts by bytes, data by bytes. Negative, 0 or
/// positive. Internal to the object store.
int orderOf(const Value& left, const Value& right) noexcept;
/// Whether less or greater is said of the two: of values of one type that are numbers where they should be.
bool areOrdered(const Value& left, const Value& right) noexcept;
/// Equal values have equal hashes, numbers of different kinds included.
std::size_t hashOf(const Value& value) noexcept;

/// Sorts objects as the request's sort descriptors say; equals come in the order in which they were made, as from the
/// store.
void sortObjects(std::vector<std::shared_ptr<ManagedObject>>& objects, const FetchRequest& request);

}  // namespace velkor::NS
