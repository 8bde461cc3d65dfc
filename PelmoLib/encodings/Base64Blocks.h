#pragma once

namespace velkor::detail {

/// Encodes as many whole blocks of 12 bytes as the machine has fast instructions for, and moves both places on; the rest is left
/// to the caller. `out` has room for the whole text.
void encodeBase64Blocks(const char*& in, const char* end, char*& out) noexcept;
/// Decodes blocks of 16 characters, all of the alphabet, likewise; stops at the first block with any other character. `out` has
/// room for 4 bytes more than are decoded.
void decodeBase64Blocks(const char*& in, const char* end, char*& out) noexcept;

}  // namespace velkor::detail
