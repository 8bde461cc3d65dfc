// The bytes of a keyed archive. Internal.
//
//   archive  = "VKARCHIV" version:u32 length:u64 body crc:u32      (little endian; the CRC-32 covers everything before it)
//   body     = value
//   value    = tag content
//   members  = count:u32 (key value)*
//   key      = length, bytes                                       (in dictionaries)
//            | name                                                (in objects)
//   name     = index                                               (of a name met before, 0 is the first one)
//            | number of names so far, length, bytes               (a new name; members and classes share the numbering)
//
// Lengths, counts of arrays and indices are unsigned LEB128 numbers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace velkor::NS::archive {

inline constexpr std::string_view magic = "VKARCHIV";
inline constexpr std::uint32_t version = 1;
inline constexpr std::size_t headSize = 8 + 4 + 8;
inline constexpr std::size_t checksumSize = 4;
inline constexpr std::size_t depthLimit = 512;

enum class Tag : std::uint8_t {
    null = 0,
    no = 1,
    yes = 2,
    integer = 3,      // 8 bytes, two's complement
    real = 4,         // 8 bytes, IEEE 754
    decimal = 5,      // length, text
    string = 6,       // length, UTF-8
    date = 7,         // 8 bytes, seconds since 1970 as IEEE 754
    data = 8,         // length, bytes
    array = 9,        // count, values
    dictionary = 10,  // members
    object = 11,      // class name, members
};

}  // namespace velkor::NS::archive
