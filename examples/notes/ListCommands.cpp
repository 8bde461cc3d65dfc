// Commands that only read.
#include <VelkorSync/NSDate+Utils.h>
#include <VelkorSync/VLKSyncableObjectHasher.h>
#include <VelkorSync/VLKTransaction.h>

#include <algorithm>
#include <iomanip>
#include <iostream>

#include "examples/notes/Command.h"
#include "examples/notes/Dump.h"
#include "examples/notes/Store.h"
#include "examples/notes/Text.h"

namespace notes {

using namespace velkor;

namespace {

std::string notebookTitle(const NS::ManagedObject& note) {
    auto notebook = note.destination(*note.entity().relationshipNamed("notebook"));
    return notebook ? textOf(*notebook, "title") : "";
}

void printTable(const std::vector<ObjectPtr>& notes) {
    constexpr std::size_t titleWidth = 40;
    for (const auto& note : notes) {
        auto created = note->valueForKey("createdAt").asDate();
        std::cout << std::left << std::setw(36) << printable(textOf(*note, "guid")) << "  " << std::setw(24)
                  << (created ? toISO8601(*created) : "") << "  " << std::setw(titleWidth)
                  << shortened(printable(textOf(*note, "title")), titleWidth) << "  " << printable(notebookTitle(*note)) << '\n';
    }
}

void printDumpLine(const ObjectPtr& object) { std::cout << dumpLine(*object) << '\n'; }

void listNotes(Installation& installation, const Arguments&) {
    auto notes = allObjects(installation.context(), "Note", {"notebook"});
    std::sort(notes.begin(), notes.end(), [](const ObjectPtr& a, const ObjectPtr& b) {
        auto first = a->valueForKey("createdAt").asDate().value_or(NS::Date(-1e18));
        auto second = b->valueForKey("createdAt").asDate().value_or(NS::Date(-1e18));
        return first != second ? first > second : textOf(*a, "guid") < textOf(*b, "guid");
    });
    if (!installation.options().json) return printTable(notes);
    forEachWithRelationships(installation.context(), notes, printDumpLine);
}

void showNote(Installation& installation, const Arguments& arguments) {
    auto note = requireNote(installation.context(), arguments[0]);
    if (installation.options().json) {
        std::cout << dumpLine(*note) << '\n';
        return;
    }
    std::string body = textOf(*note, "body");
    std::cout << body;
    if (!body.empty() && body.back() != '\n') std::cout << '\n';
}

void dump(Installation& installation, const Arguments&) {
    auto& context = installation.context();
    std::vector<const NS::EntityDescription*> entities;
    for (const auto& entity : context.managedObjectModel().entities()) entities.push_back(entity.get());
    std::sort(entities.begin(), entities.end(), [](auto* a, auto* b) { return a->name() < b->name(); });
    for (const auto* entity : entities) forEachByGuid(context, entity->name(), printDumpLine);
}

void listPending(Installation& installation, const Arguments&) {
    std::vector<std::pair<std::string, NS::Value>> rows;
    for (const auto& [guid, transaction] : installation.controller().changes()) {
        rows.emplace_back(guid, NS::Dictionary{{"guid", guid},
                                               {"type", transaction->type().value_or("")},
                                               {"object_type", transaction->objType().value_or("")}});
    }
    std::sort(rows.begin(), rows.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    NS::Array sorted;
    for (auto& row : rows) sorted.push_back(std::move(row.second));
    std::cout << jsonText(sorted) << '\n';
}

void printState(Installation& installation, const Arguments&) {
    auto& controller = installation.controller();
    auto orNull = [](const NS::Value& value) { return value.isNil() ? NS::Value(NS::Null{}) : value; };
    const NS::Dictionary* state = controller.syncState();
    auto entry = [&](std::string_view key) { return state ? (*state)[key] : NS::Value(); };
    auto lastSync = controller.lastSync();
    NS::Dictionary members{
        {"instance_id", orNull(controller.instanceId() ? NS::Value(*controller.instanceId()) : NS::Value())},
        {"highest_xaction", orNull(entry("HIGHEST_XACTION"))},
        {"last_sync", lastSync ? NS::Value(*lastSync) : NS::Value(NS::Null{})},
        {"schema_sent", orNull(entry("WS_LAST_SCHEMA_SENT"))},
        {"pending", controller.changes().size()},
        {"user", installation.account() ? NS::Value(installation.account()->email) : NS::Value(NS::Null{})},
    };
    std::cout << jsonText(members) << '\n';
}

void printHash(Installation& installation, const Arguments&) {
    if (installation.account()) installation.useAccount();  // the preferences that are set count
    VLKSyncableObjectHasher hasher(installation.controller().ctxCreator()(), installation.controller());
    auto hash = hasher.hashOfKnownShareableObjects();
    if (!hash) throw CommandError("the objects cannot be read");
    std::cout << *hash << '\n';
}

}  // namespace

std::vector<Command> listCommands() {
    return {
        {"ls", "", "lists the notes, newest first", {}, 0, 0, listNotes},
        {"show", "GUID", "prints one note", {}, 1, 1, showNote},
        {"dump", "", "prints every object of the store as JSON, one a line", {}, 0, 0, dump},
        {"pending", "", "prints the changes that wait for the next sync, as JSON", {}, 0, 0, listPending},
        {"state", "", "prints the sync state, as JSON", {}, 0, 0, printState},
        {"hash", "", "prints the hash of the objects that are kept in step", {}, 0, 0, printHash},
    };
}

}  // namespace notes
