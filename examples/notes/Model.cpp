#include "examples/notes/Model.h"

#include <VelkorSync/Exception.h>
#include <VelkorSync/ObjectClass.h>
#include <VelkorSync/VLKSyncableObject.h>

namespace notes {

using namespace velkor;
using NS::AttributeType;

void registerClasses() {
    using NS::ObjectClass;
    ObjectClass::registerClass<Notebook>("Notebook").adopt(VLKSyncableObject).answersWithAttribute("doNotSynchronize");
    ObjectClass::registerClass<Note>("Note")
        .adopt(VLKSyncableObject)
        .answersWithAttribute("expired")
        .answers("attributesToNotSerialize", [](const NS::ManagedObject&) { return NS::Value(NS::Array{"lastOpenedAt"}); });
    ObjectClass::registerClass<Tag>("Tag").adopt(VLKSyncableObject);
    ObjectClass::registerClass<Attachment>("Attachment").adopt(VLKSyncableObject);
    ObjectClass::registerClass<LocalDraft>("LocalDraft");
}

std::shared_ptr<const NS::ManagedObjectModel> makeModel() {
    NS::ModelBuilder builder;
    builder.entity("Notebook")
        .attribute("guid", AttributeType::string)
        .attribute("title", AttributeType::string)
        .attribute("doNotSynchronize", AttributeType::boolean)
        .toMany("notes", "Note", "notebook");
    builder.entity("Note")
        .attribute("guid", AttributeType::string)
        .attribute("title", AttributeType::string)
        .attribute("body", AttributeType::string)
        .attribute("createdAt", AttributeType::date)
        .attribute("modifiedAt", AttributeType::date)
        .attribute("pinned", AttributeType::boolean)
        .attribute("rating", AttributeType::integer32)
        .attribute("score", AttributeType::doubleType)
        .attribute("expired", AttributeType::boolean)
        .attribute("lastOpenedAt", AttributeType::date)
        .toOne("notebook", "Notebook", "notes")
        .toMany("tags", "Tag", "notes")
        .toMany("attachments", "Attachment", "note", NS::DeleteRule::cascade);
    builder.entity("Tag")
        .attribute("guid", AttributeType::string)
        .attribute("name", AttributeType::string)
        .toMany("notes", "Note", "tags");
    builder.entity("Attachment")
        .attribute("guid", AttributeType::string)
        .attribute("fileName", AttributeType::string)
        .attribute("contentType", AttributeType::string)
        .attribute("byteCount", AttributeType::integer64)
        .attribute("content", AttributeType::binaryData)
        .attribute("thumbnail", AttributeType::binaryData)
        .toOne("note", "Note", "attachments");
    builder.entity("LocalDraft").attribute("text", AttributeType::string);
    auto model = builder.build();
    NS::assertThat(model.ok(), "the notes model is consistent");
    return std::move(model).value();
}

}  // namespace notes
