#pragma once

#include <string>
#include <string_view>

namespace velkor::detail {

enum class Encoding { utf8, utf16BigEndian, utf16LittleEndian, utf32BigEndian, utf32LittleEndian };

/// The encoding of a JSON text, told from the zero bytes among its first four.
Encoding encodingOf(std::string_view json) noexcept;
/// Appends the text in one of the wide encodings to `out` as UTF-8. False for a lone surrogate, a character beyond U+10FFFF, or
/// bytes left over at the end; `out` then holds what came before.
bool convertToUTF8(std::string_view wide, Encoding encoding, std::string& out);

}  // namespace velkor::detail
