#include "objectstore/sqlite/StoreFailure.h"

#include <sqlite3.h>

#include <cerrno>
#include <system_error>

namespace velkor::NS::sqlite {

namespace {

bool meansFull(int systemError) { return systemError == ENOSPC || systemError == EDQUOT || systemError == EFBIG; }
bool meansReadOnly(int systemError) { return systemError == EROFS || systemError == EACCES || systemError == EPERM; }

}  // namespace

Error failureOfCode(const std::filesystem::path& file, int code, std::string_view message, int systemError) {
    const auto error = [&](std::int64_t storeCode, std::string_view problem) {
        return storeFileError(storeCode, file, std::string(problem) + " (" + std::string(message) + ')');
    };
    switch (code & 0xFF) {
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            return storeFileError(StoreError::busy, file, "is locked by another process");
        case SQLITE_FULL:
            return storeFileError(StoreError::diskFull, file, "cannot be written: the disk is full");
        case SQLITE_READONLY:
        case SQLITE_PERM:
            return storeFileError(StoreError::readOnly, file, "cannot be written: it is read-only");
        case SQLITE_CORRUPT:
            return error(StoreError::notAStore, "is damaged");
        case SQLITE_NOTADB:
            return storeFileError(StoreError::notAStore, file, "is damaged or not an object store");
        case SQLITE_TOOBIG:
            return error(StoreError::validation, "cannot take a value of this size");
        case SQLITE_ERROR:
            if (!message.starts_with("no such")) break;
            return error(StoreError::incompatibleModel, "does not fit the object model any more");
        case SQLITE_CANTOPEN:
            if (meansReadOnly(systemError)) return storeFileError(StoreError::readOnly, file, "cannot be opened for writing");
            break;
        case SQLITE_IOERR:
            if (meansFull(systemError)) return storeFileError(StoreError::diskFull, file, "cannot be written: the disk is full");
            if (meansReadOnly(systemError))
                return storeFileError(StoreError::readOnly, file, "cannot be written: it is read-only");
            break;
        default:
            break;
    }
    std::string detail(message);
    if (systemError != 0) detail += ": " + std::generic_category().message(systemError);
    return storeFileError(StoreError::ioFailure, file, "cannot be read or written (" + detail + ')');
}

}  // namespace velkor::NS::sqlite
