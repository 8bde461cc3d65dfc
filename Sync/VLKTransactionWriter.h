#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "PelmoLib/ObjectJSONWriter.h"

namespace velkor {

class VLKTransaction;

/// Writes the wire form of transactions in two steps, so that the costly one can run on another thread: `begin` on the thread of
/// the transaction's context, then, where it says so, `appendPayload` anywhere, and `end`.
class VLKTransactionWriter {
public:
    enum class Progress {
        complete,       // the wire form is whole
        awaitsPayload,  // it ends where the payload belongs; the object's JSON text is in `json`
        unwritable,     // a text of the transaction is no UTF-8
    };
    /// Appends to both texts. Raises the invalid-argument exception when the date, the type, the class name, the object or its
    /// JSON form is missing.
    Progress begin(std::string& wire, std::string& json, VLKTransaction& transaction);
    /// Appends the JSON text deflated and in base64; false when it cannot be deflated. Any thread.
    static bool appendPayload(std::string& wire, std::string_view json);
    /// Logs the payload; none raises the invalid-argument exception.
    static void logPayload(const VLKTransaction& transaction, std::optional<std::string_view> payload);
    static void end(std::string& wire) { wire.append("\"}"); }

private:
    ObjectJSONWriter m_objects;
};

}  // namespace velkor
