#include "platform/base/Object.h"

#include "platform/base/Format.h"

namespace velkor::NS {

Object::~Object() = default;

std::string_view Object::className() const noexcept { return "NSObject"; }

std::string Object::description() const {
    char address[2 + 2 * sizeof(void*) + 1];
    std::snprintf(address, sizeof address, "%p", static_cast<const void*>(this));
    return format("<%@: %@>", className(), address);
}

}  // namespace velkor::NS
