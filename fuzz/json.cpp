// The JSON reader, and that what it reads is written and read again unchanged.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "json/CJSONDeserializer.h"
#include "json/CJSONSerializer.h"

using namespace velkor;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const std::string_view json(reinterpret_cast<const char*>(bytes), size);
    std::optional<NS::Error> error;
    const NS::Value value = CJSONDeserializer::deserializer().deserialize(json, &error);
    if (value.isNil() != error.has_value()) std::abort();
    if (value.isNil()) return 0;
    const auto text = CJSONSerializer::serializer().serializeObject(value, &error);
    if (!text) std::abort();
    if (!(CJSONDeserializer::deserializer().deserialize(*text, &error) == value)) std::abort();
    return 0;
}
