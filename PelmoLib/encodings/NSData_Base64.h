#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/base/Data.h"
#include "platform/base/Export.h"

namespace velkor {

/// The bytes as base64 text: standard alphabet, "=" padding, no line breaks.
VELKOR_EXPORT std::string base64Encoding(std::string_view bytes);
inline std::string base64Encoding(const NS::Data& data) { return base64Encoding(data.view()); }
/// Appends the text to `out`.
VELKOR_EXPORT void appendBase64Encoding(std::string& out, std::string_view bytes);

/// The decoded bytes. White space and "=" are skipped wherever they stand; any other character outside the alphabet, or a single
/// character left over at the end, gives none. A nil text raises the invalid-argument exception.
VELKOR_EXPORT std::optional<NS::Data> dataWithBase64EncodedString(std::optional<std::string_view> text);
/// Appends the decoded bytes to `out`; false, and `out` as it was, when the text is no base64.
VELKOR_EXPORT bool appendBase64Decoding(std::string& out, std::string_view text);

}  // namespace velkor
