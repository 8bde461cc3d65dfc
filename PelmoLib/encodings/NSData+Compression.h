#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/base/Data.h"
#include "platform/base/Export.h"

namespace velkor {

/// The bytes as a zlib stream (RFC 1950, default level); empty data stay empty.
VELKOR_EXPORT std::optional<NS::Data> zlibDeflate(const NS::Data& data);
/// The bytes of a zlib stream; none when it is damaged, incomplete or longer than `maximumInflatedSize()`. Empty data stay empty.
VELKOR_EXPORT std::optional<NS::Data> zlibInflate(const NS::Data& data);
/// The bytes as a gzip stream (RFC 1952, default level); empty data stay empty.
VELKOR_EXPORT std::optional<NS::Data> gzipDeflate(const NS::Data& data);
/// The bytes of a gzip or zlib stream, or none as for `zlibInflate`.
VELKOR_EXPORT std::optional<NS::Data> gzipInflate(const NS::Data& data);

/// `zlibDeflate` and `zlibInflate` that append to `out`; false, and `out` as it was, on failure.
VELKOR_EXPORT bool appendZlibDeflate(std::string& out, std::string_view bytes);
VELKOR_EXPORT bool appendZlibInflate(std::string& out, std::string_view stream);

/// Most bytes that one stream may inflate to: 64 MiB unless set. Process-wide, any thread.
VELKOR_EXPORT std::size_t maximumInflatedSize() noexcept;
VELKOR_EXPORT void setMaximumInflatedSize(std::size_t bytes) noexcept;

/// CRC-32 of IEEE 802.3; 0 for empty data.
VELKOR_EXPORT std::uint32_t crc32Checksum(std::string_view bytes) noexcept;
inline std::uint32_t crc32Checksum(const NS::Data& data) noexcept { return crc32Checksum(data.view()); }

}  // namespace velkor
