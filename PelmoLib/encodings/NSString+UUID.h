#pragma once

#include <string>

#include "platform/base/Export.h"

namespace velkor {

/// A new random UUID: 36 characters, upper case.
VELKOR_EXPORT std::string stringWithUUID();
/// The process-wide counter's value as decimal text, starting at 0; each call counts it up by one.
VELKOR_EXPORT std::string stringWithGedcomId();

}  // namespace velkor
