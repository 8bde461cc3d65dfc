// Keys of the sync state, and of the service's messages that carry the same values. Internal.
#pragma once

#include <string_view>

namespace velkor::SyncStateKey {

inline constexpr std::string_view instance = "INSTANCE_IDENTIFIER";
inline constexpr std::string_view highest = "HIGHEST_XACTION";
inline constexpr std::string_view queue = "TRANSACTION_QUEUE";
inline constexpr std::string_view lastSync = "LAST_SYNC";
inline constexpr std::string_view schemaSent = "WS_LAST_SCHEMA_SENT";
inline constexpr std::string_view historyToken = "STORE_HISTORY_TOKEN";

}  // namespace velkor::SyncStateKey
