// Reading the service's answers: a field of a wrong type counts as absent, with a line in the log; a null is simply absent.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/base/Array.h"
#include "platform/base/Dictionary.h"
#include "platform/base/Value.h"

namespace velkor::VLKAnswer {

std::optional<double> number(const NS::Dictionary& answer, std::string_view key);
std::optional<std::string> text(const NS::Dictionary& answer, std::string_view key);
/// Empty when absent.
NS::Array array(const NS::Dictionary& answer, std::string_view key);
std::optional<NS::Dictionary> dictionary(const NS::Dictionary& answer, std::string_view key);
/// Something that the service counts or names with, kept as received: a number, or a text without control characters; else
/// nil.
NS::Value identifier(const NS::Dictionary& answer, std::string_view key);

/// The answer's transactions are to be fetched page by page.
bool isBatched(const NS::Dictionary& answer);

}  // namespace velkor::VLKAnswer
