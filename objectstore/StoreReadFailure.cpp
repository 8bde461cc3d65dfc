#include "objectstore/StoreReadFailure.h"

namespace velkor::NS {

StoreReadFailure::StoreReadFailure(Error error)
    : Exception(InternalInconsistencyException, error.localizedDescription()), m_error(std::move(error)) {}

}  // namespace velkor::NS
