#pragma once

#include <memory>

#include "platform/base/OrderedMap.h"

namespace velkor {

class VLKTransaction;

/// Transactions by the guid of their object, at most one each, in the order in which the guids first came.
using VLKTransactionMap = NS::OrderedMap<std::shared_ptr<VLKTransaction>>;

}  // namespace velkor
