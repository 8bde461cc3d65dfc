#pragma once

#include <cstdint>
#include <string_view>

#include "platform/base/Error.h"
#include "platform/url/Curl.h"

namespace velkor::NS::detail {

/// The URLError code for libcurl's result; `answered`: the server had sent a status.
std::int64_t codeFor(CURLcode result, bool answered) noexcept;
/// The error for a URLError code, with a text for people; `detail`, when there is one, says more.
Error transferError(std::int64_t code, std::string_view detail);

}  // namespace velkor::NS::detail
