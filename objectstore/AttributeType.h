#pragma once

#include <cstdint>

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

enum class DeleteRule : std::uint8_t { noAction, nullify, cascade, deny };

}  // namespace velkor::NS
