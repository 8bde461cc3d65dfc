#pragma once

#include <VelkorSync/ManagedObject.h>

#include <string>

namespace notes {

/// The object as one line of `dump`, without the line break.
std::string dumpLine(const velkor::NS::ManagedObject& object);
/// A value as JSON text. Raises CommandError for one that has none.
std::string jsonText(const velkor::NS::Value& value);

}  // namespace notes
