#include "Sync/VLKTransactionWriter.h"

#include "PelmoLib/encodings/NSData+Compression.h"
#include "PelmoLib/encodings/NSData_Base64.h"
#include "PelmoLib/encodings/VLKLog.h"
#include "Sync/VLKTransaction.h"
#include "Sync/VLKTransactionKeys.h"
#include "json/JSONWriter.h"
#include "platform/base/Exception.h"
#include "platform/base/Format.h"

namespace velkor {

using namespace NS;

namespace {

[[noreturn]] void raiseMissing(std::string_view key) {
    throw Exception(InvalidArgumentException, format("The transaction has no value for %@.", key));
}

}  // namespace

VLKTransactionWriter::Progress VLKTransactionWriter::begin(std::string& wire, std::string& json, VLKTransaction& transaction) {
    if (!transaction.m_date) raiseMissing(WireKey::time);
    if (transaction.m_type.isNil()) raiseMissing(WireKey::type);
    if (transaction.m_objType.isNil()) raiseMissing(WireKey::objectType);
    JSONWriter writer(wire);
    writer.beginObject();
    writer.key(WireKey::time);
    writer.date(*transaction.m_date);
    writer.member(WireKey::type, transaction.m_type);
    writer.member(WireKey::objectType, transaction.m_objType);
    if (!transaction.m_objGuid.isNil()) writer.member(WireKey::objectGuid, transaction.m_objGuid);
    if (transaction.isDelete()) {
        writer.endObject();
        return writer.ok() ? Progress::complete : Progress::unwritable;
    }
    VLKLog& log = VLKLog::sharedInstance();
    log.logMessageAtLevel(300, "Serializing the transaction for: %@", transaction.m_objGuid);
    const auto object = transaction.obj();
    if (!object) log.logMessageAtLevel(100, "Warning: the object is nil. This will probably crash!");
    const std::size_t start = json.size();
    const bool written = object && m_objects.append(json, *object);
    if (log.isLoggingEnabledOfType(400)) {
        log.logMessageAtLevel(400, "JSON: %@", written ? std::optional(std::string_view(json).substr(start)) : std::nullopt);
    }
    if (!written) logPayload(transaction, std::nullopt);
    writer.key(WireKey::object);
    wire.push_back('"');
    return writer.ok() ? Progress::awaitsPayload : Progress::unwritable;
}

bool VLKTransactionWriter::appendPayload(std::string& wire, std::string_view json) {
    thread_local std::string deflated;
    deflated.clear();
    if (!appendZlibDeflate(deflated, json)) return false;
    appendBase64Encoding(wire, deflated);
    return true;
}

void VLKTransactionWriter::logPayload(const VLKTransaction& transaction, std::optional<std::string_view> payload) {
    VLKLog& log = VLKLog::sharedInstance();
    log.logMessageAtLevel(400, "Base64 Encoded: %@", payload);
    if (payload) return;
    log.logMessageAtLevel(100, "I'm about to crash... but here's some additional info to help you figure out why!");
    log.logMessageAtLevel(100, "Object GUID: %@", transaction.m_objGuid);
    log.logMessageAtLevel(100, "Transaction type: %@", transaction.m_type);
    log.logMessageAtLevel(100, "The type of object I think I'm serializing: %@", transaction.m_objType);
    raiseMissing(WireKey::object);
}

}  // namespace velkor
