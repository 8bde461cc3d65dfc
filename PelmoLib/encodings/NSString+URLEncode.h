#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/base/Export.h"

namespace velkor {

/// Percent escaping of the UTF-8 bytes of all but ASCII letters, digits and -_.!~*'();/?:@&=+$,
VELKOR_EXPORT std::string simpleUrlEncode(std::string_view text);
/// The reverse; none when a "%" lacks its two hexadecimal digits or the result is no UTF-8.
VELKOR_EXPORT std::optional<std::string> simpleUrlDecode(std::string_view text);
/// Replaces 25 characters one after the other, "%" last, so that the escapes are escaped again (a blank becomes %2520).
VELKOR_EXPORT std::string urlEncode(std::string_view text);
/// The same 25 pairs in the same order, each escape replaced by its character.
VELKOR_EXPORT std::string urlDecode(std::string_view text);

}  // namespace velkor
