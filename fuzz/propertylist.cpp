#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "platform/persistence/PropertyList.h"

using namespace velkor;

// Whatever is read as a property list can be written, and reads back as the same value.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const auto value = NS::propertyListFromBytes({reinterpret_cast<const char*>(bytes), size});
    if (!value) return 0;
    const auto text = NS::propertyListXML(value.value());
    if (!text) std::abort();
    const auto again = NS::propertyListFromBytes(text.value());
    if (!again || !(again.value() == value.value())) std::abort();
    return 0;
}
