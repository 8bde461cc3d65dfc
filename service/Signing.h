#pragma once

#include <string>
#include <string_view>

namespace velkor::service {

/// The 32 bytes of the HMAC with SHA-256.
std::string hmacSHA256(std::string_view key, std::string_view text);
/// The 32 bytes of the SHA-256 digest.
std::string sha256(std::string_view text);
/// Two lower-case digits a byte.
std::string hexadecimal(std::string_view bytes);
/// Whether the texts are equal, in a time that tells nothing about how much of them is.
bool equalsInConstantTime(std::string_view a, std::string_view b);

}  // namespace velkor::service
