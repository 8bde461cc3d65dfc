#pragma once

#include <string_view>

#include "platform/base/Export.h"

namespace velkor::NS {

/// Whether the bytes are well-formed UTF-8: shortest forms only, no surrogates, nothing above U+10FFFF.
VELKOR_EXPORT bool isValidUtf8(std::string_view bytes) noexcept;

}  // namespace velkor::NS
