// The notes of the benchmarks. The host's model has more to it; this one stays small, so that figures remain comparable.
#pragma once

#include <memory>

#include "PelmoLib/VLKSyncableObject.h"
#include "objectstore/ManagedObject.h"
#include "objectstore/ManagedObjectModel.h"
#include "objectstore/ObjectClass.h"

namespace velkor::bench {

class Notebook : public NS::ManagedObject {};
class Note : public NS::ManagedObject {};
class Tag : public NS::ManagedObject {};

/// Registers the classes, too.
inline std::shared_ptr<const NS::ManagedObjectModel> notesModel() {
    using NS::AttributeType;
    NS::ObjectClass::registerClass<Notebook>("Notebook").adopt(VLKSyncableObject);
    NS::ObjectClass::registerClass<Note>("Note").adopt(VLKSyncableObject);
    NS::ObjectClass::registerClass<Tag>("Tag").adopt(VLKSyncableObject);
    NS::ModelBuilder builder;
    builder.entity("Notebook")
        .attribute("guid", AttributeType::string)
        .attribute("name", AttributeType::string)
        .toMany("notes", "Note", "notebook");
    builder.entity("Tag")
        .attribute("guid", AttributeType::string)
        .attribute("name", AttributeType::string)
        .toMany("notes", "Note", "tags");
    builder.entity("Note")
        .attribute("guid", AttributeType::string)
        .attribute("title", AttributeType::string)
        .attribute("body", AttributeType::string)
        .attribute("createdAt", AttributeType::date)
        .attribute("pinned", AttributeType::boolean)
        .attribute("rating", AttributeType::integer32)
        .attribute("score", AttributeType::doubleType)
        .toOne("notebook", "Notebook", "notes")
        .toMany("tags", "Tag", "notes");
    return builder.build().value();
}

}  // namespace velkor::bench
