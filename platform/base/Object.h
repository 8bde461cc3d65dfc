#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "platform/base/Export.h"

namespace velkor::NS {

/// Root of the classes whose instances can be carried in a Value or send a notification.
class VELKOR_EXPORT Object : public std::enable_shared_from_this<Object> {
public:
    Object() = default;
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;
    virtual ~Object();

    /// Name of the object's class, as messages and archives name it.
    virtual std::string_view className() const noexcept;
    /// The text that "%@" gives.
    virtual std::string description() const;
};

}  // namespace velkor::NS
