#pragma once

#include <optional>

#include "platform/base/Data.h"
#include "platform/base/Export.h"

namespace velkor {

/// An object that knows its own JSON text. A Value that holds an NS::Object of such a class is written as these bytes.
class VELKOR_EXPORT JSONRepresentable {
public:
    virtual ~JSONRepresentable() = default;
    /// The JSON text as UTF-8 bytes, or none when it cannot be made; the writer copies it unchanged.
    virtual std::optional<NS::Data> objectAsJson() = 0;
};

}  // namespace velkor
