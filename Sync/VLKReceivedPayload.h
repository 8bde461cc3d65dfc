#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/base/Dictionary.h"

namespace velkor {

/// The text between the first and the last character (a UTF-16 code unit each); none when that cuts a character in two. A text
/// of less than two characters raises the range exception.
std::optional<std::string_view> withoutWrappingCharacters(std::string_view text);

/// A decoded object payload, as the two passes of a replay need it.
struct VLKReceivedPayload {
    /// Raises as VLKTransaction::dataFromCompressedTransactionObjectData does.
    static VLKReceivedPayload decode(std::optional<std::string_view> text);

    /// The payload decodes and inflates.
    bool hasData = false;
    /// Its text, kept only when the log wants it.
    std::string text;
    /// The parsed text; none when it is no JSON object.
    std::optional<NS::Dictionary> object;
};

}  // namespace velkor
