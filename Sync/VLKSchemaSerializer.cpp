#include "Sync/VLKSchemaSerializer.h"

#include "PelmoLib/NSEntityDescription+VLK.h"
#include "json/JSONWriter.h"

namespace velkor {

std::vector<const NS::EntityDescription*> VLKSchemaSerializer::syncableEntityTypesInCtx(
    const NS::ManagedObjectContext* context) const {
    return velkor::syncableEntityTypesInCtx(context);
}

std::optional<std::string> VLKSchemaSerializer::asJSON() const {
    std::string text;
    JSONWriter writer(text);
    writer.beginArray();
    for (const NS::EntityDescription* entity : syncableEntityTypesInCtx(m_ctx.get())) {
        writer.beginObject();
        writer.member("name", entity->name());
        writer.key("attributes");
        writer.beginArray();
        for (const NS::AttributeDescription& attribute : entity->attributes()) {
            writer.beginObject();
            writer.member("name", attribute.name);
            writer.key("type");
            writer.number(static_cast<std::uint16_t>(attribute.type));
            writer.endObject();
        }
        writer.endArray();
        writer.endObject();
    }
    writer.endArray();
    return writer.ok() ? std::optional(std::move(text)) : std::nullopt;
}

}  // namespace velkor
