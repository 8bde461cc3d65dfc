// Keys of a transaction's wire form. Internal.
#pragma once

#include <string_view>

#include "objectstore/ObjectClass.h"
#include "platform/base/Dictionary.h"
#include "platform/base/Value.h"

namespace velkor {

namespace WireKey {
inline constexpr std::string_view time = "xaction_time";
inline constexpr std::string_view type = "xaction_type";
inline constexpr std::string_view objectType = "xaction_object_type";
inline constexpr std::string_view objectGuid = "xaction_object_guid";
inline constexpr std::string_view object = "xaction_object";
inline constexpr std::string_view computedRelationships = "computed_relationships";
inline constexpr std::string_view keyPath = "xaction_key_path";
inline constexpr std::string_view genericObjectId = "xaction_generic_object_id";
}  // namespace WireKey

/// The text under the key; nil when there is none, and, with a line at level 100, when the value is of another type.
NS::Value textUnderKey(const NS::Dictionary& dictionary, std::string_view key);

/// The host's class of that name; null when there is none or the value is no text.
const NS::ObjectClass* classNamed(const NS::Value& name);

}  // namespace velkor
