// The JSON cursor over any bytes: it gives what the reader gives, and skips exactly what can be read.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "json/CJSONDeserializer.h"
#include "json/JSONCursor.h"
#include "json/WideText.h"

using namespace velkor;

namespace {

/// The value at the cursor, collections step by step as far down as `levels`.
NS::Value read(JSONCursor& cursor, int levels) {
    std::string_view text;
    const char first = cursor.peek();
    if (levels > 0 && first == '{') {
        NS::Dictionary dictionary;
        for (cursor.enterObject(); cursor.nextMember(text);) {
            const std::string_view key = text;  // stays valid while the value is read
            NS::Value value = read(cursor, levels - 1);
            if (cursor.ok()) dictionary.set(key, std::move(value));
        }
        return dictionary;
    }
    if (levels > 0 && first == '[') {
        NS::Array array;
        for (cursor.enterArray(); cursor.nextElement();) array.push_back(read(cursor, levels - 1));
        return array;
    }
    if (first == '"') return cursor.string(text) ? NS::Value(text) : NS::Value();
    NS::Value value;
    cursor.value(value);
    return value;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const std::string_view json(reinterpret_cast<const char*>(bytes), size);
    if (detail::encodingOf(json) != detail::Encoding::utf8) return 0;  // the cursor reads UTF-8 only
    std::optional<NS::Error> error;
    const NS::Value expected = CJSONDeserializer::deserializer().deserialize(json, &error);

    JSONCursor skipper(json);
    if ((skipper.skip() && skipper.end()) == expected.isNil() || skipper.ok() == expected.isNil()) std::abort();

    // A value that is read below some steps may be as deep as one that is read whole.
    if (error && error->code() == static_cast<std::int64_t>(CJSONScanner::Fault::nesting)) return 0;
    JSONCursor reader(json);
    const NS::Value got = read(reader, 8);
    if (reader.end() == expected.isNil() || reader.ok() == expected.isNil()) std::abort();
    if (reader.ok() && !(got == expected)) std::abort();
    return 0;
}
