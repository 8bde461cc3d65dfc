#include "service/IncomingTransaction.h"

#include <new>

#include "PelmoLib/encodings/NSData+Compression.h"
#include "PelmoLib/encodings/NSData_Base64.h"
#include "json/JSONWriter.h"

namespace velkor::service {
namespace {

constexpr std::string_view genericObject = "GENERIC_OBJECT";

bool isName(std::string_view text) { return !text.empty() && text.size() <= longestName && text.find('\0') == text.npos; }

/// The object JSON of a payload; empty when it does not decode. Valid until the thread's next call.
std::string_view decodedPayload(std::string_view payload) {
    thread_local std::string packed, json;
    packed.clear();
    json.clear();
    if (!appendBase64Decoding(packed, payload) || !appendZlibInflate(json, packed)) return {};
    return json;
}

/// The payload without its wrapping characters.
std::string_view unwrapped(std::string_view payload) {
    return payload.size() < 2 ? std::string_view() : payload.substr(1, payload.size() - 2);
}

std::string_view copied(std::string_view text, std::pmr::memory_resource& arena) {
    char* bytes = static_cast<char*>(arena.allocate(text.size(), 1));
    text.copy(bytes, text.size());
    return {bytes, text.size()};
}

/// Reads a string; steps over any other value and gives none.
std::optional<std::string_view> stringOrNone(JSONCursor& cursor) {
    std::string_view text;
    if (cursor.peek() == '"') return cursor.string(text) ? std::optional(text) : std::nullopt;
    cursor.skip();
    return std::nullopt;
}

void readGuids(JSONCursor& cursor, std::pmr::vector<std::string_view>& guids, std::pmr::memory_resource& arena) {
    if (cursor.peek() != '[') {
        cursor.skip();
        return;
    }
    for (cursor.enterArray(); cursor.nextElement();) {
        if (const auto guid = stringOrNone(cursor); guid && isName(*guid)) guids.push_back(copied(*guid, arena));
    }
}

std::optional<RelationshipText> readRelationship(std::string_view name, JSONCursor& cursor, std::pmr::memory_resource& arena) {
    RelationshipText relationship{
        copied(name, arena), {}, false, std::pmr::vector<std::string_view>(&arena), {}, std::pmr::vector<std::uint32_t>(&arena)};
    if (cursor.peek() != '{') {
        cursor.skip();
        return std::nullopt;
    }
    std::pmr::vector<std::string_view> list(&arena);
    std::string_view destination, single;
    std::string_view key;
    for (cursor.enterObject(); cursor.nextMember(key);) {
        if (key == "destination_type") {
            destination = stringOrNone(cursor).value_or(std::string_view());
        } else if (key == "to_many") {
            relationship.toMany = cursor.peek() == 't';
            cursor.skip();
        } else if (key == "destination_object") {
            single = stringOrNone(cursor).value_or(std::string_view());
        } else if (key == "destination_objects") {
            readGuids(cursor, list, arena);
        } else {
            cursor.skip();
        }
    }
    if (!cursor.ok() || !isName(name) || !isName(destination)) return std::nullopt;
    relationship.destination = copied(destination, arena);
    if (relationship.toMany) {
        relationship.guids = std::move(list);
    } else if (isName(single)) {
        relationship.guids.push_back(copied(single, arena));
    }
    return relationship;
}

}  // namespace

bool IncomingTransaction::read(JSONCursor& cursor) {
    if (cursor.peek() != '{') return cursor.skip();
    std::string_view key;
    for (cursor.enterObject(); cursor.nextMember(key);) {
        if (key == "xaction_time") {
            m_time = stringOrNone(cursor);
            continue;
        }
        std::string_view* place = key == "xaction_type"          ? &m_type
                                  : key == "xaction_object_type" ? &m_className
                                  : key == "xaction_object_guid" ? &m_guid
                                  : key == "xaction_object"      ? &m_payload
                                                                 : nullptr;
        if (place) {
            *place = stringOrNone(cursor).value_or(std::string_view());
        } else {
            cursor.skip();
        }
    }
    return cursor.ok();
}

std::optional<IncomingTransaction> IncomingTransaction::fromStored(std::string_view body, JSONCursor& cursor) {
    IncomingTransaction transaction;
    if (!transaction.read(cursor) || !transaction.isUsable()) return std::nullopt;
    transaction.m_payload = unwrapped(transaction.m_payload);
    transaction.m_wireForm = body;
    return transaction;
}

ObjectKind IncomingTransaction::kind() const {
    if (m_type == "INSERT_XACTION") return ObjectKind::inserted;
    if (m_type == "UPDATE_XACTION") return ObjectKind::updated;
    if (m_type == "DELETE_XACTION") return ObjectKind::deleted;
    return ObjectKind::unknown;  // an expiry is the service's own
}

bool IncomingTransaction::isUsable() const {
    return kind() != ObjectKind::unknown && isName(m_guid) && isName(m_className) && m_className != genericObject &&
           m_time.value_or("").find('\0') == std::string_view::npos && m_payload.find('\0') == m_payload.npos;
}

void IncomingTransaction::readRelationships(std::pmr::memory_resource& arena, std::size_t& bytesLeft) {
    using List = std::pmr::vector<RelationshipText>;
    if (kind() == ObjectKind::deleted) return;
    const std::string_view json = decodedPayload(m_payload);
    if (json.size() > bytesLeft) return;
    bytesLeft -= json.size();
    // The list is never destroyed: everything in it is the arena's.
    List& relationships = *new (arena.allocate(sizeof(List), alignof(List))) List(&arena);
    JSONCursor cursor(json);
    std::string_view key, name;
    for (cursor.enterObject(); cursor.nextMember(key);) {
        if (key != "relationships" || cursor.peek() != '{') {
            cursor.skip();
            continue;
        }
        relationships.clear();
        for (cursor.enterObject(); cursor.nextMember(name);) {
            if (auto relationship = readRelationship(name, cursor, arena)) relationships.push_back(*std::move(relationship));
        }
    }
    if (cursor.ok() && cursor.end()) m_relationships = relationships;
}

void IncomingTransaction::appendWireForm(std::string& out) const {
    if (!m_wireForm.empty()) {
        out += m_wireForm;
        return;
    }
    JSONWriter writer(out);
    auto member = [&](std::string_view key, std::string_view text) {
        writer.key(key);
        writer.string(text);
    };
    writer.beginObject();
    if (m_time) member("xaction_time", *m_time);
    member("xaction_type", m_type);
    member("xaction_object_type", m_className);
    member("xaction_object_guid", m_guid);
    if (kind() != ObjectKind::deleted) {
        thread_local std::string wrapped;
        wrapped.assign(1, '<');
        wrapped += m_payload;
        wrapped += '>';
        member("xaction_object", wrapped);
    }
    writer.endObject();
}

std::optional<StoredRelationships> relationshipsOfStoredTransaction(std::string_view body) {
    JSONCursor cursor(body);
    std::string_view key, className, payload;
    for (cursor.enterObject(); cursor.nextMember(key);) {
        if (key == "xaction_object_type") {
            cursor.string(className);
        } else if (key == "xaction_object") {
            cursor.string(payload);
        } else {
            cursor.skip();
        }
    }
    JSONCursor object(decodedPayload(unwrapped(payload)));
    NS::Value relationships;
    for (object.enterObject(); object.nextMember(key);) {
        if (key == "relationships") {
            object.value(relationships);
        } else {
            object.skip();
        }
    }
    const NS::Dictionary* dictionary = relationships.asDictionary();
    if (!object.ok() || !dictionary) return std::nullopt;
    return StoredRelationships{std::string(className), *dictionary};
}

}  // namespace velkor::service
