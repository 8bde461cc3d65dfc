#pragma once

#include <cstdint>
#include <string>

namespace velkor {

/// A byte count for people, in multiples of 1024 with unit names: "Zero KB", "1 byte", "512 bytes", "14 KB", "1.5 MB", "2.25 GB".
std::string textForByteCount(std::int64_t bytes);

}  // namespace velkor
