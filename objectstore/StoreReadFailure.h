#pragma once

#include "platform/base/Error.h"
#include "platform/base/Exception.h"
#include "platform/base/Export.h"

namespace velkor::NS {

/// Raised where an operation that returns no Result had to read the store and could not: reading a fault's values or an object's
/// relationships, deleting, refreshing, merging. Its name is the internal-inconsistency exception's, its reason the error's text.
class VELKOR_EXPORT StoreReadFailure : public Exception {
public:
    explicit StoreReadFailure(Error error);
    const Error& error() const noexcept { return m_error; }

private:
    Error m_error;
};

}  // namespace velkor::NS
