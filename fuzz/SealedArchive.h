#pragma once

#include <zlib.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/persistence/ArchiveFormat.h"

namespace velkor {

/// The keyed archive with this body. Its checksum is right, so that any body reaches the decoder.
inline std::string sealedArchive(std::string_view body) {
    std::string bytes(NS::archive::magic);
    const auto append = [&bytes](auto number) { bytes.append(reinterpret_cast<const char*>(&number), sizeof number); };
    append(NS::archive::version);
    append(static_cast<std::uint64_t>(body.size()));
    bytes.append(body);
    append(static_cast<std::uint32_t>(crc32_z(0, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size())));
    return bytes;
}

}  // namespace velkor
