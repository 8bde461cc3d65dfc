#pragma once

#include <cstdint>

namespace velkor::service {

// Milliseconds from the issue of an address of a blob.
inline constexpr std::int64_t longestUpload = 86'400'000;  // it must be confirmed by then, and its bytes have all come
inline constexpr std::int64_t issuedURLs = 1'800'000;      // those of the name are used up by then

}  // namespace velkor::service
