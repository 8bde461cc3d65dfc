#pragma once

#include <string_view>

#include "objectstore/EntityDescription.h"
#include "platform/base/Value.h"

namespace velkor {

/// The value that an attribute takes from a received object's JSON value (nil: the JSON lacks it). Null clears the attribute; a
/// date text that fits no pattern too; a number fits any number type that can hold it; a value of another type clears the
/// attribute with a line at level 100. Where the attribute is not optional its default stands for nil.
NS::Value attributeValueFromJSON(const NS::AttributeDescription& attribute, const NS::Value& json, std::string_view className);

}  // namespace velkor
