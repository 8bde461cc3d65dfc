#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/base/Export.h"

namespace velkor::NS {

/// The platform's attribute type codes.
enum class AttributeType : std::uint16_t {
    undefined = 0,
    integer16 = 100,
    integer32 = 200,
    integer64 = 300,
    decimal = 400,
    doubleType = 500,
    floatType = 600,
    string = 700,
    boolean = 800,
    date = 900,
    binaryData = 1000,
    transformable = 1800,
    objectID = 2000,
};

/// What happens to the destinations when an object is deleted.
enum class DeleteRule : std::uint8_t { noAction, nullify, cascade, deny };

/// The names that model resources and messages use: "integer16", "double", "binary" ... and "noAction", "nullify" ...
VELKOR_EXPORT std::string_view nameOfAttributeType(AttributeType type) noexcept;
VELKOR_EXPORT std::string_view nameOfDeleteRule(DeleteRule rule) noexcept;
/// The type (rule) of a name; none for an unknown name.
VELKOR_EXPORT std::optional<AttributeType> attributeTypeNamed(std::string_view name) noexcept;
VELKOR_EXPORT std::optional<DeleteRule> deleteRuleNamed(std::string_view name) noexcept;

}  // namespace velkor::NS
