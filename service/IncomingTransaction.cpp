#include "service/IncomingTransaction.h"

#include "PelmoLib/encodings/NSData+Compression.h"
#include "PelmoLib/encodings/NSData_Base64.h"
#include "PelmoLib/encodings/VLKLog.h"
#include "json/CJSONDeserializer.h"
#include "json/JSONWriter.h"

namespace velkor::service {
namespace {

constexpr std::string_view genericObject = "GENERIC_OBJECT";

bool isName(std::string_view text) { return !text.empty() && text.size() <= longestName && text.find('\0') == text.npos; }

std::string_view textOf(const NS::Dictionary& dictionary, std::string_view key) {
    return dictionary[key].asString().value_or(std::string_view());
}

/// What a client may send; an expiry is the service's own.
ObjectKind kindOf(std::string_view type) {
    if (type == "INSERT_XACTION") return ObjectKind::inserted;
    if (type == "UPDATE_XACTION") return ObjectKind::updated;
    if (type == "DELETE_XACTION") return ObjectKind::deleted;
    return ObjectKind::unknown;
}

std::optional<NS::Dictionary> decodePayload(std::string_view payload) {
    thread_local std::string packed, json;
    packed.clear();
    json.clear();
    if (!appendBase64Decoding(packed, payload) || !appendZlibInflate(json, packed)) return std::nullopt;
    return CJSONDeserializer::deserializer().deserializeAsDictionary(json, nullptr);
}

std::string_view copied(std::string_view text, std::pmr::memory_resource& arena) {
    char* bytes = static_cast<char*>(arena.allocate(text.size(), 1));
    text.copy(bytes, text.size());
    return {bytes, text.size()};
}

void readRelationships(const NS::Dictionary& object, IncomingTransaction& transaction, std::pmr::memory_resource& arena) {
    const NS::Dictionary* relationships = object["relationships"].asDictionary();
    if (!relationships) return;
    transaction.relationships.reserve(relationships->size());
    for (const auto& entry : *relationships) {
        const NS::Dictionary* description = entry.value().asDictionary();
        if (!description || !isName(entry.key()) || !isName(textOf(*description, "destination_type"))) continue;
        RelationshipText relationship{copied(entry.key(), arena),
                                      copied(textOf(*description, "destination_type"), arena),
                                      (*description)["to_many"].asBoolean().value_or(false),
                                      std::pmr::vector<std::string_view>(&arena),
                                      RelationEnd(),
                                      std::pmr::vector<std::uint32_t>(&arena)};
        if (!relationship.toMany) {
            const auto guid = textOf(*description, "destination_object");
            if (isName(guid)) relationship.guids.push_back(copied(guid, arena));
        } else if (const NS::Array* guids = (*description)["destination_objects"].asArray()) {
            relationship.guids.reserve(guids->size());
            for (const NS::Value& guid : *guids) {
                if (const auto text = guid.asString(); text && isName(*text)) relationship.guids.push_back(copied(*text, arena));
            }
        }
        transaction.relationships.push_back(std::move(relationship));
    }
}

/// The wire form for other clients; the payload gets one wrapping character at each end.
std::string wireForm(const NS::Dictionary& member, std::string_view payload, bool wrapped) {
    std::string body;
    body.reserve(payload.size() + 256);
    JSONWriter writer(body);
    writer.beginObject();
    for (std::string_view key : {"xaction_time", "xaction_type", "xaction_object_type", "xaction_object_guid"}) {
        const auto text = member[key].asString();
        if (!text) continue;
        writer.key(key);
        writer.string(*text);
    }
    if (textOf(member, "xaction_type") != "DELETE_XACTION") {
        writer.key("xaction_object");
        thread_local std::string wrapping;
        wrapping.clear();
        if (!wrapped) wrapping += '<';
        wrapping += payload;
        if (!wrapped) wrapping += '>';
        writer.string(wrapping);
    }
    writer.endObject();
    return body;
}

std::optional<IncomingTransaction> read(const NS::Dictionary& member, bool wrapped, std::pmr::memory_resource& arena) {
    IncomingTransaction transaction{kindOf(textOf(member, "xaction_type")),
                                    textOf(member, "xaction_object_guid"),
                                    textOf(member, "xaction_object_type"),
                                    {},
                                    std::pmr::vector<RelationshipText>(&arena)};
    if (transaction.kind == ObjectKind::unknown || !isName(transaction.guid) || !isName(transaction.className) ||
        transaction.className == genericObject || textOf(member, "xaction_time").find('\0') != std::string_view::npos) {
        return std::nullopt;
    }
    std::string_view payload = textOf(member, "xaction_object");
    if (payload.find('\0') != payload.npos) return std::nullopt;
    transaction.body = wireForm(member, payload, wrapped);
    if (transaction.kind == ObjectKind::deleted) return transaction;
    if (wrapped && payload.size() >= 2) payload = payload.substr(1, payload.size() - 2);
    if (const auto object = decodePayload(payload)) readRelationships(*object, transaction, arena);
    return transaction;
}

}  // namespace

std::optional<IncomingTransaction> readTransaction(const NS::Dictionary& member, std::pmr::memory_resource& arena) {
    auto transaction = read(member, false, arena);
    if (!transaction)
        VLKLog::sharedInstance().logMessageAtLevel(100, "Skipped a transaction without a usable guid, class or type.");
    return transaction;
}

std::optional<IncomingTransaction> readStoredTransaction(std::string_view body, std::pmr::memory_resource& arena) {
    // The caller's text is parsed into values that this function owns, so the names move to the arena.
    const auto member = CJSONDeserializer::deserializer().deserializeAsDictionary(body, nullptr);
    if (!member) return std::nullopt;
    auto transaction = read(*member, true, arena);
    if (transaction) {
        transaction->guid = copied(transaction->guid, arena);
        transaction->className = copied(transaction->className, arena);
    }
    return transaction;
}

std::optional<StoredRelationships> relationshipsOfStoredTransaction(std::string_view body) {
    const auto member = CJSONDeserializer::deserializer().deserializeAsDictionary(body, nullptr);
    if (!member) return std::nullopt;
    const auto payload = textOf(*member, "xaction_object");
    if (payload.size() < 2) return std::nullopt;
    const auto object = decodePayload(payload.substr(1, payload.size() - 2));
    const NS::Dictionary* relationships = object ? (*object)["relationships"].asDictionary() : nullptr;
    if (!relationships) return std::nullopt;
    return StoredRelationships{std::string(textOf(*member, "xaction_object_type")), *relationships};
}

}  // namespace velkor::service
