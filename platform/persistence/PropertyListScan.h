// A look at the bytes of a property list before the parser of the property list library gets them. That parser recurses without a
// limit, expands shared references, and reads damaged numbers, dates and data as zero or nothing; here all of that is refused.
// Internal.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace velkor::NS {

inline constexpr std::size_t propertyListDepthLimit = 128;
inline constexpr std::size_t propertyListSizeLimit = std::size_t{1} << 30;
inline constexpr std::size_t propertyListNodeLimit = 4'000'000;
/// Seconds from 1970 to 2001, where the library's dates begin; it counts them from there in 32 bits.
inline constexpr std::int64_t propertyListDateOrigin = 978'307'200;

/// Each returns what is wrong, or an empty text.
std::string xmlPropertyListFault(std::string_view bytes);
std::string binaryPropertyListFault(std::string_view bytes);

}  // namespace velkor::NS
