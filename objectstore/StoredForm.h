// How a value is kept: as nothing, a 64-bit integer, a real, a text or bytes. Internal to the object store.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "objectstore/AttributeType.h"
#include "platform/base/Value.h"

namespace velkor::NS {

/// The stored form of one value, to be used again for the next. Texts and bytes refer to the value or to this form's buffer.
struct StoredForm {
    enum class Kind : std::uint8_t { null, integer, real, text, bytes };

    StoredForm() = default;
    StoredForm(const StoredForm&) = delete;
    StoredForm& operator=(const StoredForm&) = delete;

    /// Takes the form of the value as an attribute of the type keeps it. Returns what is wrong with the value (to be put after
    /// the attribute's name, such as "is not valid UTF-8"), or an empty text. nil has a form under every type.
    std::string_view take(AttributeType type, const Value& value);

    Kind kind = Kind::null;
    std::int64_t integer = 0;
    double real = 0;
    std::string_view bytes;
    /// Whether `bytes` lie in this form, not in the value.
    bool ownsBytes = false;

private:
    std::string_view takeInteger(const Value& value, std::int64_t least, std::int64_t most, std::string_view problem);
    std::string_view takeReal(const Value& value, double most);
    std::string_view takeDecimal(const Value& value);
    std::string_view takeText(const Value& value);
    std::string_view takeDate(const Value& value);
    std::string_view takeArchive(const Value& value);
    std::string_view takeObjectID(const Value& value);

    std::string_view own(std::string text);

    std::string m_buffer;
};

/// Whether the text is UTF-8 without NUL bytes.
bool isStorableText(std::string_view text) noexcept;

}  // namespace velkor::NS
