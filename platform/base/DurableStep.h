#pragma once

#include <string_view>

#include "platform/base/Export.h"

namespace velkor::NS {

/// Marks a moment at which bytes become durable or visible to others (write, fsync, rename, commit). A build with
/// VELKOR_DURABLE_STEPS counts these moments and ends the process at the one that the environment's VELKOR_DIE_AT_STEP names
/// (1 is the first; the step itself has not happened yet), and at exit writes the count to the file that
/// VELKOR_STEP_COUNT_FILE names. In any other build it is nothing.
#ifdef VELKOR_DURABLE_STEPS
VELKOR_EXPORT void durableStep(std::string_view what) noexcept;
#else
inline void durableStep(std::string_view) noexcept {}
#endif

}  // namespace velkor::NS
