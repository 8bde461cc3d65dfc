#include "examples/notes/Dump.h"

#include <VelkorSync/CJSONSerializer.h>
#include <VelkorSync/NSData+Digests.h>

#include <algorithm>
#include <optional>

#include "examples/notes/Options.h"

namespace notes {

using namespace velkor;

namespace {

/// The value as it stands in a line: none for an attribute that is left out.
NS::Value dumpValue(const NS::Value& value) {
    const NS::Data* bytes = value.asData();
    if (!bytes) return value;
    if (bytes->empty()) return {};
    return NS::Dictionary{{"bytes", bytes->size()}, {"sha1", sha1HexHash(*bytes)}};
}

NS::Value guidOrNull(const NS::ManagedObject& object) {
    NS::Value guid = object.valueForKey("guid");
    return guid.isNil() ? NS::Value(NS::Null{}) : guid;
}

NS::Value dumpRelationship(const NS::ManagedObject& object, const NS::RelationshipDescription& relationship) {
    if (!relationship.toMany) {
        auto destination = object.destination(relationship);
        return destination ? guidOrNull(*destination) : NS::Value(NS::Null{});
    }
    std::vector<std::string> guids;
    for (const auto& destination : object.destinations(relationship)) guids.push_back(guidOrNull(*destination).stringOr(""));
    std::sort(guids.begin(), guids.end());
    NS::Array sorted;
    for (auto& guid : guids) sorted.push_back(guid);
    return sorted;
}

}  // namespace

std::string jsonText(const NS::Value& value) {
    auto text = CJSONSerializer::serializer().serializeObject(value, nullptr);
    if (!text) throw CommandError("a value cannot be written as JSON");
    return *text;
}

std::string dumpLine(const NS::ManagedObject& object) {
    NS::Dictionary attributes, relationships;
    const auto& entity = object.entity();
    for (const auto& attribute : entity.attributes()) {
        if (auto value = dumpValue(object.valueForKey(attribute.name)); !value.isNil()) attributes.set(attribute.name, value);
    }
    for (const auto& relationship : entity.relationships())
        relationships.set(relationship.name, dumpRelationship(object, relationship));
    bool hasGuid = entity.attributeNamed("guid") != nullptr;
    return jsonText(NS::Dictionary{{"entity", entity.name()},
                                   {"guid", hasGuid ? guidOrNull(object) : NS::Value(NS::Null{})},
                                   {"attributes", attributes},
                                   {"relationships", relationships}});
}

}  // namespace notes
