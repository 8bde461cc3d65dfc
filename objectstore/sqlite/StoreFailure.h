// Errors of the store, made where SQLite speaks. Internal to the object store.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "objectstore/PersistentStoreCoordinator.h"
#include "platform/base/Error.h"

namespace velkor::NS::sqlite {

inline Error storeError(std::int64_t code, std::string_view text) {
    return Error::withDescription(PlatformErrorDomain, code, text);
}
/// "The store FILE" and what is wrong with it.
inline Error storeFileError(std::int64_t code, const std::filesystem::path& file, std::string_view problem) {
    return storeError(code, "The store " + file.string() + ' ' + std::string(problem) + '.');
}
/// What an SQLite result code (extended), its message and the system's error number say of the file.
Error failureOfCode(const std::filesystem::path& file, int code, std::string_view message, int systemError);

}  // namespace velkor::NS::sqlite
