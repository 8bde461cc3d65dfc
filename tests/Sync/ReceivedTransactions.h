// Transactions as the service sends them.
#pragma once

#include <string>
#include <string_view>

#include "PelmoLib/encodings/NSData+Compression.h"
#include "PelmoLib/encodings/NSData_Base64.h"
#include "platform/base/Array.h"
#include "platform/base/Dictionary.h"
#include "platform/base/Value.h"

namespace velkor::test {

/// The object JSON as a payload, as clients send it.
inline std::string payloadOf(std::string_view json) { return base64Encoding(*zlibDeflate(NS::Data::copyOf(json))); }

/// A transaction with a wrapped payload (none for an empty JSON text).
inline NS::Dictionary received(std::string_view type, std::string_view className, std::string_view guid,
                               std::string_view json = {}) {
    NS::Dictionary transaction{{"xaction_type", type}, {"xaction_object_type", className}, {"xaction_object_guid", guid}};
    if (!json.empty()) transaction.set("xaction_object", "\"" + payloadOf(json) + "\"");
    return transaction;
}

/// An answer with these transactions.
inline NS::Dictionary answerWith(const NS::Array& transactions) {
    NS::Array entries;
    for (const NS::Value& transaction : transactions) entries.push_back(NS::Dictionary{{"transaction", transaction}});
    return NS::Dictionary{{"new_xactions", entries}};
}

}  // namespace velkor::test
