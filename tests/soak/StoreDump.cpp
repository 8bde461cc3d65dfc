#include "tests/soak/StoreDump.h"

#include "json/CJSONDeserializer.h"
#include "json/CJSONSerializer.h"

namespace velkor::soak {

namespace {

NS::Dictionary member(const NS::Dictionary& object, std::string_view key) {
    const NS::Dictionary* value = object[key].asDictionary();
    return value ? *value : NS::Dictionary();
}

bool isItsOwn(const DumpedObject& object) {
    return (object.entity == "Notebook" && object.isTrue("doNotSynchronize")) ||
           (object.entity == "Note" && object.isTrue("expired"));
}

NS::Value withoutHidden(const NS::Value& links, const std::set<std::string>& hidden) {
    const NS::Array* list = links.asArray();
    if (!list) return hidden.contains(links.stringOr("")) ? NS::Value(NS::Null()) : links;
    NS::Array shown;
    for (const NS::Value& guid : *list) {
        if (!hidden.contains(guid.stringOr(""))) shown.push_back(guid);
    }
    return shown;
}

}  // namespace

std::optional<std::string> DumpedObject::destination(std::string_view relationship) const {
    const auto guid = relationships[relationship].asString();
    return guid ? std::optional<std::string>(*guid) : std::nullopt;
}

std::vector<std::string> DumpedObject::destinations(std::string_view relationship) const {
    std::vector<std::string> guids;
    if (const NS::Array* list = relationships[relationship].asArray()) {
        for (const NS::Value& guid : *list) guids.push_back(guid.stringOr(""));
    }
    return guids;
}

std::string DumpedObject::state() const {
    return CJSONSerializer::serializer().serializeDictionary(attributes, nullptr).value_or("?");
}

StoreDump::StoreDump(std::string_view text) {
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        const auto read = dictionaryWithJSONData(line, nullptr);
        if (!read) throw Failure{"dump printed a line that is no JSON: " + std::string(line)};
        DumpedObject object{(*read)["entity"].stringOr(""), member(*read, "attributes"), member(*read, "relationships")};
        if (object.entity == "LocalDraft") {
            m_drafts.insert(object.text("text"));
        } else if (!m_objects.emplace((*read)["guid"].stringOr(""), std::move(object)).second) {
            throw Failure{"two objects have one guid: " + std::string(line)};
        }
    }
}

const DumpedObject* StoreDump::find(const std::string& guid) const {
    const auto found = m_objects.find(guid);
    return found == m_objects.end() ? nullptr : &found->second;
}

std::set<std::string> StoreDump::guidsOfItsOwn() const {
    std::set<std::string> guids;
    for (const auto& [guid, object] : m_objects) {
        if (isItsOwn(object)) guids.insert(guid);
    }
    return guids;
}

std::vector<std::string> StoreDump::sharedLines(const std::set<std::string>& hidden,
                                                const std::set<std::string>& looseNotes) const {
    std::set<std::string> hiddenInNotebooks = hidden;
    hiddenInNotebooks.insert(looseNotes.begin(), looseNotes.end());
    std::vector<std::string> lines;
    for (const auto& [guid, object] : m_objects) {
        if (isItsOwn(object)) continue;
        NS::Dictionary attributes = object.attributes, relationships;
        attributes.remove("lastOpenedAt");
        for (const auto& [name, links] : object.relationships) {
            if (name == "notebook" && looseNotes.contains(guid)) continue;
            relationships.set(name, withoutHidden(links, object.entity == "Notebook" ? hiddenInNotebooks : hidden));
        }
        const NS::Dictionary shown{{"entity", object.entity}, {"attributes", attributes}, {"relationships", relationships}};
        lines.push_back(guid + " " + CJSONSerializer::serializer().serializeDictionary(shown, nullptr).value_or("?"));
    }
    return lines;
}

}  // namespace velkor::soak
