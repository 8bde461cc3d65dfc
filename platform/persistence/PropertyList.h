#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "platform/base/Dictionary.h"
#include "platform/base/Export.h"
#include "platform/base/Result.h"
#include "platform/base/Value.h"

namespace velkor::NS {

/// Property list files: XML is written, XML and binary are read, in any locale. Values: dictionary, array, string, data, date
/// (whole seconds from 1932-12-13 to 2069-01-19 UTC), boolean, integer, real. Nesting is limited to 128 levels, a list to 1 GiB
/// and 4,000,000 values and keys, texts to valid UTF-8 without control characters other than tab, line feed and carriage return;
/// anything else is an error. Errors are of PlatformErrorDomain: 3840 for a list that is invalid or would be, errno for a file.
VELKOR_EXPORT Result<std::string> propertyListXML(const Value& value);
VELKOR_EXPORT Result<Value> propertyListFromBytes(std::string_view bytes);

/// The dictionary at the path; an error when the file is missing, unreadable or no dictionary.
VELKOR_EXPORT Result<Dictionary> dictionaryWithContentsOfFile(const std::filesystem::path& path);
/// Writes atomically, mode 0600.
VELKOR_EXPORT Result<void> writeDictionaryToFile(const Dictionary& dictionary, const std::filesystem::path& path);

}  // namespace velkor::NS
