// Texts of unknown origin: names of files, and whatever other hosts wrote.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace notes {

/// The text as part of one line on a terminal: without control characters, and without what is no UTF-8.
std::string printable(std::string_view text);
/// The text cut at `bytes` bytes, between characters.
std::string shortened(std::string text, std::size_t bytes);
/// The first characters of the text.
std::string firstCharacters(std::string_view text, std::size_t characters);

}  // namespace notes
