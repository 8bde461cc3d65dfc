// Commands that change objects: each saves the store once.
#include "examples/notes/Attachments.h"
#include "examples/notes/Command.h"
#include "examples/notes/Store.h"

#include <iostream>
#include <limits>

namespace notes {

using namespace velkor;

namespace {

ObjectPtr requireNotebook(NS::ManagedObjectContext& context, std::string_view guid) {
    auto notebook = findByGuid(context, "Notebook", guid);
    if (!notebook) throw CommandError("there is no notebook with the guid " + std::string(guid));
    return notebook;
}

/// The tags of that name, the smallest guid first.
std::vector<ObjectPtr> tagsNamed(NS::ManagedObjectContext& context, const std::string& name) {
    NS::FetchRequest request(context.managedObjectModel().entityNamed("Tag"));
    request.predicate = NS::Predicate::equal("name", name);
    request.sortDescriptors = {{"guid", true}};
    auto found = context.executeFetchRequest(request);
    if (!found.ok()) throw CommandError(found.error().localizedDescription());
    return std::move(found).value();
}

ObjectPtr findOrMakeTag(NS::ManagedObjectContext& context, const std::string& name) {
    auto tags = tagsNamed(context, name);
    if (!tags.empty()) return tags.front();
    auto tag = insertObject(context, "Tag");
    tag->setValueForKey(name, "name");
    return tag;
}

/// What `add` and `edit` have in common.
void applyNoteOptions(NS::ManagedObjectContext& context, const ObjectPtr& note, const Arguments& arguments) {
    if (auto body = arguments.value("--body")) note->setValueForKey(*body, "body");
    if (auto rating = arguments.value("--rating")) {
        auto number = parseInteger(*rating, "--rating");
        if (number < std::numeric_limits<std::int32_t>::min() || number > std::numeric_limits<std::int32_t>::max()) {
            throw UsageError("--rating is out of range");
        }
        note->setValueForKey(number, "rating");
    }
    if (auto score = arguments.value("--score")) note->setValueForKey(parseNumber(*score, "--score"), "score");
    auto tags = note->entity().relationshipNamed("tags");
    for (const auto& name : arguments.values("--tag")) note->addDestination(*tags, findOrMakeTag(context, name));
    for (const auto& file : arguments.values("--attach")) attachFile(context, note, file);
}

void addNotebook(Installation& installation, const Arguments& arguments) {
    auto notebook = insertObject(installation.context(), "Notebook", arguments.value("--guid"));
    notebook->setValueForKey(arguments[0], "title");
    if (arguments.has("--private")) notebook->setValueForKey(true, "doNotSynchronize");
    installation.saveStore();
    std::cout << textOf(*notebook, "guid") << '\n';
}

void addNote(Installation& installation, const Arguments& arguments) {
    auto& context = installation.context();
    auto note = insertObject(context, "Note", arguments.value("--guid"));
    note->setValueForKey(arguments[0], "title");
    applyNoteOptions(context, note, arguments);
    if (arguments.has("--pinned")) note->setValueForKey(true, "pinned");
    if (auto guid = arguments.value("--notebook")) {
        note->setDestination(*note->entity().relationshipNamed("notebook"), requireNotebook(context, *guid));
    }
    auto now = wholeSecondsNow();
    note->setValueForKey(now, "createdAt");
    note->setValueForKey(now, "modifiedAt");
    installation.saveStore();
    std::cout << textOf(*note, "guid") << '\n';
}

void editNote(Installation& installation, const Arguments& arguments) {
    auto& context = installation.context();
    auto note = requireNote(context, arguments[0]);
    if (auto title = arguments.value("--title")) note->setValueForKey(*title, "title");
    applyNoteOptions(context, note, arguments);
    if (auto pinned = arguments.value("--pinned")) note->setValueForKey(parseSwitch(*pinned, "--pinned"), "pinned");
    if (auto expired = arguments.value("--expired")) note->setValueForKey(parseSwitch(*expired, "--expired"), "expired");
    if (auto guid = arguments.value("--notebook")) {
        auto notebook = *guid == "none" ? nullptr : requireNotebook(context, *guid);
        note->setDestination(*note->entity().relationshipNamed("notebook"), notebook);
    }
    for (const auto& name : arguments.values("--untag")) {
        for (const auto& tag : tagsNamed(context, name)) note->removeDestination(*note->entity().relationshipNamed("tags"), tag);
    }
    note->setValueForKey(wholeSecondsNow(), "modifiedAt");
    installation.saveStore();
}

void removeObject(Installation& installation, const Arguments& arguments) {
    auto object = findByGuid(installation.context(), arguments[0]);
    if (!object) throw CommandError("there is no object with the guid " + arguments[0]);
    installation.context().deleteObject(object);
    installation.saveStore();
}

void addDraft(Installation& installation, const Arguments& arguments) {
    auto& context = installation.context();
    auto draft = context.insertNewObjectForEntityForName("LocalDraft");
    draft->setValueForKey(arguments[0], "text");
    installation.saveStore();
}

}  // namespace

std::vector<Command> editCommands() {
    return {
        {"notebook",
         "TITLE [--guid GUID] [--private]",
         "adds a notebook",
         {{"--guid", true}, {"--private", false}},
         1,
         1,
         addNotebook},
        {"add",
         "TITLE [--guid GUID] [--body TEXT] [--notebook GUID] [--tag NAME]... [--attach FILE]... [--rating N] [--score X] "
         "[--pinned]",
         "adds a note",
         {{"--guid", true},
          {"--body", true},
          {"--notebook", true},
          {"--tag", true},
          {"--attach", true},
          {"--rating", true},
          {"--score", true},
          {"--pinned", false}},
         1,
         1,
         addNote},
        {"edit",
         "GUID [--title TEXT] [--body TEXT] [--notebook GUID|none] [--tag NAME]... [--untag NAME]... [--attach FILE]... "
         "[--rating N] [--score X] [--pinned on|off] [--expired on|off]",
         "changes a note",
         {{"--title", true},
          {"--body", true},
          {"--notebook", true},
          {"--tag", true},
          {"--untag", true},
          {"--attach", true},
          {"--rating", true},
          {"--score", true},
          {"--pinned", true},
          {"--expired", true}},
         1,
         1,
         editNote},
        {"rm", "GUID", "deletes the object with that guid", {}, 1, 1, removeObject},
        {"draft", "TEXT", "adds a draft that stays on this machine", {}, 1, 1, addDraft},
    };
}

}  // namespace notes
