// Keyed archives: a versioned, length-prefixed encoding with a checksum, safe to read from any bytes.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "platform/base/Data.h"
#include "platform/base/Export.h"
#include "platform/base/Object.h"
#include "platform/base/OrderedMap.h"
#include "platform/base/Result.h"
#include "platform/base/Value.h"

namespace velkor::NS {

/// What an object that archives itself writes to and reads from. `allowsKeyedCoding` is false only for coders of hosts and tests.
class VELKOR_EXPORT Coder {
public:
    virtual ~Coder() = default;
    virtual bool allowsKeyedCoding() const { return true; }
    /// nil values are not written; a missing key reads as nil.
    virtual void encodeObject(const Value& value, std::string_view key) = 0;
    virtual void encodeBool(bool value, std::string_view key) = 0;
    virtual void encodeInt64(std::int64_t value, std::string_view key) = 0;
    virtual Value decodeObject(std::string_view key) const = 0;
    /// A missing key or another type reads as false (0).
    virtual bool decodeBool(std::string_view key) const = 0;
    virtual std::int64_t decodeInt64(std::string_view key) const = 0;
};

/// An object that can be archived; a Value of kind object holding one is archived under its class name.
class VELKOR_EXPORT Archivable : public Object {
public:
    virtual void encodeWithCoder(Coder& coder) const = 0;
};

/// Classes that can be unarchived, by name. Registered explicitly at start, from one thread.
VELKOR_EXPORT void registerArchivableClass(std::string_view className,
                                           std::function<std::shared_ptr<Archivable>(const Coder&)> factory);

/// The archive of a root value (collections may hold Archivable objects). Nil, an object that is not Archivable and more than 512
/// levels raise the invalid-argument exception.
VELKOR_EXPORT Data archivedDataWithRootObject(const Value& root);
/// The root value, or an error for bytes that are no archive, are damaged, or name an unknown class. An exception of a
/// factory passes.
VELKOR_EXPORT Result<Value> unarchiveObjectWithData(std::string_view bytes);

}  // namespace velkor::NS
