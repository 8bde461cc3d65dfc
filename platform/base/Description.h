// How the collections print: one element a line, nested ones indented by four blanks more. Internal.
#pragma once

#include <cstddef>
#include <string>

#include "platform/base/Array.h"
#include "platform/base/Dictionary.h"

namespace velkor::NS {

void appendDescription(std::string& text, const Array& array, std::size_t indent);
void appendDescription(std::string& text, const Dictionary& dictionary, std::size_t indent);

}  // namespace velkor::NS
