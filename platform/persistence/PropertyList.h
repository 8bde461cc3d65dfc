#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "platform/base/Dictionary.h"
#include "platform/base/Export.h"
#include "platform/base/Result.h"
#include "platform/base/Value.h"

namespace velkor::NS {

/// Property list files: XML is written, XML and binary are read. Values: dictionary, array, string, data, date (whole seconds),
/// boolean, integer, real. Nesting is limited to 128 levels, texts to valid UTF-8 without control characters other than tab, line
/// feed and carriage return; anything else is an error.
VELKOR_EXPORT Result<std::string> propertyListXML(const Value& value);
VELKOR_EXPORT Result<Value> propertyListFromBytes(std::string_view bytes);

/// The dictionary at the path; an error when the file is missing, unreadable or no dictionary.
VELKOR_EXPORT Result<Dictionary> dictionaryWithContentsOfFile(const std::filesystem::path& path);
/// Writes atomically, mode 0600.
VELKOR_EXPORT Result<void> writeDictionaryToFile(const Dictionary& dictionary, const std::filesystem::path& path);

}  // namespace velkor::NS
