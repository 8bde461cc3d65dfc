#pragma once

#include <cstdint>

#include "platform/base/Export.h"

namespace velkor {

// One process-wide MT19937 generator, not locked: the sync engine uses it on the main thread only.

/// Seeds the generator with the current time in whole seconds, low 32 bits.
VELKOR_EXPORT void seedRandomNumberGenerator();
/// Seeds the generator with a number of the caller's.
VELKOR_EXPORT void seedRandomNumberGenerator(std::uint32_t seed);
/// The generator's next output modulo (end - start), plus start: `end` itself is never returned. `start` must differ from `end`.
VELKOR_EXPORT std::int64_t numberWithRandomValueBetweenStart(std::int32_t start, std::int32_t end);

/// The next 32-bit output.
VELKOR_EXPORT std::uint32_t nextRandomNumber();
/// Real forms: in [0, 1], [0, 1), (0, 1), and [0, 1) with 53 bits.
VELKOR_EXPORT double nextRandomRealClosed();
VELKOR_EXPORT double nextRandomRealHalfOpen();
VELKOR_EXPORT double nextRandomRealOpen();
VELKOR_EXPORT double nextRandomReal53();

}  // namespace velkor
