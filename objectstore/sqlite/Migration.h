// From the tables of one model to those of another. Internal to the object store.
#pragma once

#include <string>

#include "objectstore/sqlite/Connection.h"
#include "objectstore/sqlite/StoreSchema.h"

namespace velkor::NS::sqlite {

/// Brings a store whose model has the text `fromText` to the schema `to` (its model's text: `toText`), within the caller's
/// transaction. Fails with StoreError::incompatibleModel, saying why, when the step cannot be inferred; the caller rolls back.
Result<void> migrateStore(Connection& connection, const std::string& fromText, const StoreSchema& to, const std::string& toText);

/// Makes and drops indices until they are those of the schema.
Result<void> reconcileIndices(Connection& connection, const StoreSchema& schema);

}  // namespace velkor::NS::sqlite
